#include "daemon/NotificationThread.h"

#include <array>
#include <cstdint>
#include <mutex>

#include "channel/Notification.h"
#include "channel/PipeFiles.h"
#include "config/DaemonConfiguration.h"
#include "daemon/DaemonState.h"
#include "daemon/Exit.h"
#include "network/NetworkConfiguration.h"
#include "support/Cancellation.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FifoReader.h"
#include "support/FileWriteError.h"
#include "support/Folder.h"
#include "support/GrowingPause.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Survive.h"

namespace keywarden {

namespace {

// After a failure that may pass.
constexpr std::int64_t kPauseMilliseconds = 100;
constexpr int kAttempts = 3;

void reloadNetwork() {
    Log::write(SeverityNotice, "Notification reload network received");
    try {
        NetworkConfiguration::getInstance().reload();
        const std::lock_guard<std::mutex> guard(lock1);
        networkNotificationHandler();
    } catch (...) {
        Log::write(SeverityError,
                   Failure::current().message(
                       "Daemon exception received while handling reload network notification: ",
                       "Standard exception received while handling reload network notification: ",
                       "Unknown exception received while handling reload network notification"));
    }
    Log::write(SeverityNotice, "Notification reload network completed");
}

void reloadTime() {
    Log::write(SeverityNotice, "Time reload notification received");
    try {
        const std::lock_guard<std::mutex> guard(lock1);
        timeNotificationHandler();
    } catch (...) {
        Log::write(SeverityError, Failure::current().message(
                                      "Daemon exception received while handling reload time notification: ",
                                      "Standard exception received while handling reload time notification: ",
                                      "Unknown exception received while handling reload time notification."));
    }
    Log::write(SeverityNotice, "Time reload notification completed");
}

void handleNotification(char notification) {
    debugTrace("Notification received: ");
    debugTrace("->" + std::to_string(static_cast<int>(notification)));
    if (Common::isDateOld()) {
        Log::write(SeverityInfo, "Ignoring the reload notification as the system date is invalid.");
        return;
    }
    if (notification == kNetworkHasChanged)
        reloadNetwork();
    else if (notification == kTimeWasSet)
        reloadTime();
}

// One that fails for want of memory would be lost; done twice it does no harm.
void handleAnyhow(char notification) {
    GrowingPause pause(kPauseMilliseconds);
    for (int made = 1; !survives("A notification", [notification] { handleNotification(notification); }) &&
                       made < kAttempts && !StopRequest::isRaised();
         ++made)
        Cancellation::sleep(pause.next());
}

// Returns when the fifo is lost for good: its folder has been removed.
void readNotifications(const std::string& path) {
    FolderPtr folder;
    try {
        folder = Folder::at(folderOfPath(path), Folder::Owner::Anybody);
    } catch (const FileWriteError& error) {
        Log::write(SeverityError, error.what());
        return;
    }
    FifoReader reader(folder, splitPath(path).second, kInputFifoMode,
                      DaemonConfiguration::getInstance().getNotificationGroup());
    std::array<char, 256> received;
    bool usable = reader.open();
    while (usable) {
        ssize_t count = 0;
        if (!survives("Reading the notifications",
                      [&] { count = reader.read(received.data(), received.size()); }))
            Cancellation::sleep(kPauseMilliseconds);
        usable = count >= 0;
        for (ssize_t index = 0; index < count && !StopRequest::isRaised(); ++index)
            handleAnyhow(received[static_cast<std::size_t>(index)]);
    }
}

}  // namespace

std::string notificationFifoPath() {
    return DaemonConfiguration::getNamePipesDirectory() + "/" + kNotificationFifo;
}

void* notificationHandler(void*) {
    const bool prepared = Cancellation::prepareThread();
    const std::string path = notificationFifoPath();
    Log::open();
    if (!prepared)
        Log::write(SeverityError, "notificationHandler thread pthread_setcanceltype failed\n");
    debugTrace("Start notification handler");
    while (!survives("Reading the notifications", [&path] { readNotifications(path); }))
        Cancellation::sleep(kPauseMilliseconds);
    const std::string failure = "Failed to open the fifo file:" + path + " to read the notifications.";
    Log::write(SeverityError, failure);
    exitDaemon(ExitFailure, failure, true);
}

}  // namespace keywarden
