#include "callbacks/BinaryServiceCallbacks.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include "support/Debug.h"
#include "support/Exec.h"
#include "support/Failure.h"
#include "support/GrowingPause.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr int kAttempts = 4;
constexpr std::int64_t kFirstPauseMilliseconds = 100;

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// A script that is missing or wrong will not run at another time either, unlike one for which there was no
// process, no memory or no descriptor, or that was just being written.
bool isFaultOfScript(int error) {
    switch (error) {
        case ENOENT:
        case EACCES:
        case EPERM:
        case ENOEXEC:
        case ENOTDIR:
        case EISDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case E2BIG:
        case EINVAL:
        case ELIBBAD:
            return true;
        default:
            return false;
    }
}

// Of these there may be some again in a moment.
bool isShortage(int error) {
    return error == EAGAIN || error == EMFILE || error == ENFILE || error == ENOMEM;
}

// Not a wait that can be cancelled: the caller is in the middle of its work. A stop cuts it short.
void pauseUnlessStopped(std::int64_t milliseconds) {
    std::array<pollfd, 2> stops{
        {{StopRequest::raisedDescriptor(), POLLIN, 0}, {StopRequest::pendingSignalDescriptor(), POLLIN, 0}}};
    ::poll(stops.data(), stops.size(), static_cast<int>(milliseconds));
}

// Only while nothing has been started yet does this fail with the system's reason.
zlk::Exec runWhenPossible(const std::vector<std::string>& arguments, unsigned timeoutSeconds) {
    GrowingPause pause(kFirstPauseMilliseconds);
    for (int made = 1;; ++made) {
        try {
            return zlk::Exec(arguments, timeoutSeconds);
        } catch (const std::system_error& error) {
            if (!isShortage(error.code().value()) || made == kAttempts || StopRequest::isRaised())
                throw;
        }
        pauseUnlessStopped(pause.next());
    }
}

}  // namespace

BinaryServiceCallbacks::BinaryServiceCallbacks(const std::string& serviceId, const std::string& scriptPath,
                                               std::uint32_t timeoutSeconds)
    : serviceId_(serviceId), script_(scriptPath), timeoutSeconds_(timeoutSeconds) {
    const std::string subject = "The callback " + scriptPath + " for the service " + serviceId;
    if (!Tools::fileExist(scriptPath))
        throw std::runtime_error(subject + " doesn't exist");
    if (::access(scriptPath.c_str(), X_OK) != 0)
        throw std::runtime_error(subject + " doesn't have executable right.");
}

void BinaryServiceCallbacks::started() {
    run({"start"});
}

void BinaryServiceCallbacks::stopped() {
    run({"stop"});
}

void BinaryServiceCallbacks::allStarted() {
    run({"allStarted"}, Trace::No);
}

void BinaryServiceCallbacks::newGeneratedCertificate(const std::string& id) {
    run({"server", "new", id});
}

void BinaryServiceCallbacks::updateValidityGeneratedCertificate(int validIn, int expireIn) {
    if (validIn > 0)
        run({"server", "validIn", std::to_string(validIn)});
    else if (expireIn > 0)
        run({"server", "expireIn", std::to_string(expireIn)});
    else  // widened first: the smallest int has no positive counterpart
        run({"server", "expireFrom", std::to_string(-std::int64_t{expireIn})});
}

void BinaryServiceCallbacks::newExternalCertificate(const std::string& store, const std::string& id) {
    run({store, "new", id});
}

void BinaryServiceCallbacks::revokedExternalCertificate(const std::string& store, const std::string& id) {
    run({store, "revoke", id});
}

void BinaryServiceCallbacks::revokedExternalCertificate(const std::string& store,
                                                        const std::vector<std::string>& ids) {
    if (ids.empty()) {
        delivered_ = true;
        return;
    }
    std::vector<std::string> event{store, "revoke"};
    event.insert(event.end(), ids.begin(), ids.end());
    run(event);
}

void BinaryServiceCallbacks::run(const std::vector<std::string>& event, Trace trace) {
    bool delivered = false;
    const std::string subject = "The callback " + script_ + " for the service " + serviceId_;
    const std::string failed = subject + " failed for the event '" + joined(event) + "': ";
    try {
        delivered = runScript(event, trace, failed);
    } catch (const zlk::ExecTimeout&) {
        delivered = true;
        Log::write(SeverityError, failed + "it did not end within " + std::to_string(timeoutSeconds_) +
                                      " seconds and was killed");
    } catch (const std::system_error& error) {
        delivered = isFaultOfScript(error.code().value());
        Log::write(SeverityError, subject + " could not be run: " + error.what());
    } catch (...) {
        Log::write(SeverityError, subject + " could not be run: " + Failure::current().text());
    }
    // "allStarted", which may come beside another event and is of no certificate, decides nothing.
    if (trace == Trace::Yes)
        delivered_ = delivered;
}

bool BinaryServiceCallbacks::runScript(const std::vector<std::string>& event, Trace trace,
                                       const std::string& failed) const {
    std::vector<std::string> arguments{script_, serviceId_};
    arguments.insert(arguments.end(), event.begin(), event.end());
    zlk::Exec script = runWhenPossible(arguments, timeoutSeconds_);
    if (trace == Trace::Yes) {
        debugTrace(script.standardOutput().str());
        debugTrace(script.standardError().str());
    }
    // For whoever looks after the script: nothing here depends on how it ended.
    if (const std::string failure = script.failureText(); !failure.empty())
        Log::write(SeverityWarning, failed + failure);
    return !script.interrupted();
}

}  // namespace keywarden
