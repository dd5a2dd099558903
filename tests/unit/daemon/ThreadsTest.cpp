// The signal watcher, the notification thread, the monitor and the fan-outs.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <thread>

#include "DaemonFixture.h"
#include "daemon/DaemonState.h"
#include "daemon/Exit.h"
#include "daemon/MonitorThread.h"
#include "daemon/NotificationThread.h"
#include "daemon/SignalThread.h"
#include "daemon/StartUp.h"
#include "service/Service.h"
#include "support/Cancellation.h"
#include "support/FifoReader.h"
#include "support/StopRequest.h"
#include "support/UniqueFd.h"
#include "testsupport/TestClock.h"

namespace daemontest {

using keywarden::CheckChangeInNetworkConfig;
using keywarden::CheckIfThreadConfigParamValid;
using keywarden::FifoReader;
using keywarden::Service;
using keywarden::services;
using keywarden::SeverityEmergency;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using keywarden::StopRequest;
using keywarden::thread_arguments;
using keywarden::UniqueFd;
using testing::HasSubstr;
using testsupport::CapturedLog;
using testsupport::ExitedChild;
using testsupport::runToExit;
using testsupport::Sandbox;
using testsupport::TestClock;
using Words = std::vector<std::string>;

namespace {

constexpr std::int64_t kOldClock = 946555199;

/// A daemon thread, stopped as the daemon stops it.
class RunningThread {
  public:
    explicit RunningThread(void* (*body)(void*), void* argument = nullptr) {
        if (::pthread_create(&thread_, nullptr, body, argument) != 0)
            throw std::runtime_error("no thread");
    }
    RunningThread(const RunningThread&) = delete;
    RunningThread& operator=(const RunningThread&) = delete;
    ~RunningThread() {
        ::pthread_cancel(thread_);
        ::pthread_join(thread_, nullptr);
    }

  private:
    pthread_t thread_{};
};

const Lines kTimeFanOut{
    {SeverityInfo, "Handling reload time."},
    {SeverityInfo, "Time reload operation completed"},
};
const Lines kNetworkFanOut{
    {SeverityInfo, "Handling reload network."},
    {SeverityInfo, "Network reload operation completed"},
};

Lines between(const testsupport::LogLine& first, const Lines& middle, const testsupport::LogLine& last) {
    Lines all{first};
    all.insert(all.end(), middle.begin(), middle.end());
    all.push_back(last);
    return all;
}

Lines after(const Lines& first, const Lines& second) {
    Lines all = first;
    all.insert(all.end(), second.begin(), second.end());
    return all;
}

}  // namespace

class FanOut : public DaemonTest {
  protected:
    void start(const std::string& id, const std::string& lines) {
        configure(id, lines);
        services().push_back(std::make_shared<Service>(id));
    }
};

TEST_F(FanOut, TellsPkiServicesFirstAndTheOthersInStartOrder) {
    for (const char* id : {"alpha", "pkiroot", "beta", "pkisub", "nopki"})
        start(id, "server yes");
    CapturedLog::clear();
    keywarden::networkNotificationHandler();
    Words checked;
    for (const testsupport::LogLine& line : linesStarting({"The service"}))
        if (line.text.find(" is checking") != std::string::npos)
            checked.push_back(line.text.substr(12, line.text.find(" is checking") - 12));
    EXPECT_EQ(checked, (Words{"pkiroot", "pkisub", "alpha", "beta", "nopki"}));
    EXPECT_EQ(CapturedLog::lines().front(), kNetworkFanOut[0]);
    EXPECT_EQ(CapturedLog::lines().back(), kNetworkFanOut[1]);
}

TEST_F(FanOut, TellsOfTheTimeInTheSameOrder) {
    for (const char* id : {"alpha", "pkiroot"})
        start(id, "server yes");
    CapturedLog::clear();
    keywarden::timeNotificationHandler();
    const Lines checked = linesStarting({"The service pkiroot is checking", "The service alpha is checking"});
    ASSERT_EQ(checked.size(), 2U);
    EXPECT_EQ(checked[0].text, "The service pkiroot is checking server certificate because time changed.");
    EXPECT_EQ(checked[1].text, "The service alpha is checking server certificate because time changed.");
    EXPECT_EQ(CapturedLog::lines().front(), kTimeFanOut[0]);
    EXPECT_EQ(CapturedLog::lines().back(), kTimeFanOut[1]);
}

TEST_F(FanOut, StopsAtAStop) {
    for (const char* id : {"alpha", "pkiroot"})
        start(id, "server yes");
    const ExitedChild end = runToExit([] {
        StopRequest::raise();
        keywarden::networkNotificationHandler();
        keywarden::timeNotificationHandler();
    });
    EXPECT_EQ(end.log, after(kNetworkFanOut, kTimeFanOut)) << end.dump();
}

class FatalNotification : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        setNetwork("fqdn.0 old.example\n");
        configureThrowing("web", "server yes\nselfSignedGeneration yes\nincludeFQDN yes");
        services().push_back(std::make_shared<Service>("web"));
        sandbox().write("keywardd.lock", "");
    }
    /// The owner throws when it hears of the certificate for the new network.
    static ExitedChild networkChangeWith(const std::string& kind, const std::string& text) {
        static int count = 0;
        ownerThrows("newGenerated", kind, text);
        // The certificate is installed when the owner hears of it: another name for every change.
        const std::string network = "fqdn.0 new" + std::to_string(++count) + ".example\n";
        return runToExit([&network] {
            setNetwork(network);
            keywarden::notifiyNetworkChanged(services().front());
        });
    }
    /// The owner throws when it is told how long the certificate still lasts.
    static ExitedChild timeChangeWith(const std::string& kind, const std::string& text) {
        ownerThrows("updateValidity", kind, text);
        return runToExit([] { keywarden::notifiyTimeChanged(services().front()); });
    }
    static void expectFatal(const ExitedChild& end, const std::string& reason) {
        EXPECT_TRUE(end.exitedWith(12)) << end.dump();
        EXPECT_TRUE(end.logged(SeverityEmergency, "Stopping with the code 12" +
                                                      (reason.empty() ? "" : " due to " + reason) + "..."))
            << end.dump();
    }
};

TEST_F(FatalNotification, OfTheNetworkNamesTheKindOfFailure) {
    expectFatal(networkChangeWith("daemon", "no room"),
                "Daemon exception caught while network reload: no room");
    EXPECT_FALSE(Sandbox::exists(lockFile()));
    expectFatal(networkChangeWith("runtime", "no room"),
                "Runtime error caught while network reload: no room");
    expectFatal(networkChangeWith("standard", "no room"),
                "std::exception caught while network reload: no room");
    expectFatal(networkChangeWith("odd", ""), "Unknown exception caught while network reload operation.");
}

TEST_F(FatalNotification, OfTheNetworkWithoutATextHasNoReason) {
    for (const char* kind : {"daemon", "runtime", "standard"})
        expectFatal(networkChangeWith(kind, ""), "");
}

TEST_F(FatalNotification, OfTheTimeNamesTheKindOfFailure) {
    expectFatal(timeChangeWith("daemon", "no room"), "Daemon exception caught while time reload: no room");
    EXPECT_FALSE(Sandbox::exists(lockFile()));
    // Runtime errors have no text of their own here.
    expectFatal(timeChangeWith("runtime", "no room"), "std::exception caught while time reload: no room");
    expectFatal(timeChangeWith("standard", "no room"), "std::exception caught while time reload: no room");
    expectFatal(timeChangeWith("odd", ""), "Unknown exception caught while time reload operation.");
}

TEST_F(FatalNotification, OfTheTimeWithoutATextHasNoReason) {
    for (const char* kind : {"daemon", "runtime", "standard"})
        expectFatal(timeChangeWith(kind, ""), "");
}

TEST_F(FatalNotification, IsOnlyLoggedWhileTheDaemonStops) {
    ownerThrows("updateValidity", "daemon", "no room");
    const ExitedChild end = runToExit([] {
        StopRequest::raise();
        keywarden::notifiyTimeChanged(services().front());
    });
    EXPECT_TRUE(end.exitedWith(0)) << end.dump();
    EXPECT_TRUE(end.logged(SeverityError, "Daemon exception caught while time reload: no room"));
}

class PassedOverDeathTest : public FreshDaemonTest {
  protected:
    /// In the process of a death test only.
    void startThrowing() const {
        configureDaemon("root", "kwmanage", "continueOnServiceFailure yes");
        std::filesystem::create_directories(pipes());
        std::filesystem::create_directories(keyward());
        TestClock::set(kNow);
        setNetwork("fqdn.0 old.example\n");
        for (const char* const id : {"api", "web"}) {
            configureThrowing(id, "server yes\nselfSignedGeneration yes\nincludeFQDN yes");
            services().push_back(std::make_shared<Service>(id));
        }
        CapturedLog::clear();
    }
};

TEST_F(PassedOverDeathTest, ServiceThatFailsIsLoggedAndTheNextOneIsTold) {
    EXPECT_EXIT(
        {
            startThrowing();
            ownerThrows("newGenerated", "runtime", "no room");
            setNetwork("fqdn.0 new.example\n");
            keywarden::networkNotificationHandler();
            ownerThrows("updateValidity", "odd", "");
            keywarden::timeNotificationHandler();
            ownerThrows("updateValidity", "daemon", "");
            keywarden::notifiyTimeChanged(services().front());
            std::cerr << "passed over: ";
            for (const testsupport::LogLine& line : CapturedLog::lines())
                if (line.severity == SeverityError)
                    std::cerr << line.text << "|";
            std::cerr << "\n";
            services().clear();
            std::exit(5);
        },
        testing::ExitedWithCode(5),
        HasSubstr("passed over: Runtime error caught while network reload: no room|"
                  "Runtime error caught while network reload: no room|"
                  "Unknown exception caught while time reload operation.|"
                  "Unknown exception caught while time reload operation.|"
                  "The service api failed in a notification without a reason.|\n"));
}

class Notifications : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        keywarden::createNotificationFifo();
        CapturedLog::clear();
    }
    static bool notify(const std::string& text) {
        const UniqueFd end(::open(fifo().c_str(), O_WRONLY | O_CLOEXEC));
        return end && ::write(end.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    static bool comes(std::size_t lines) {
        return becomes([lines] { return CapturedLog::lines().size() >= lines; });
    }
    const Lines kNetwork = between({SeverityNotice, "Notification reload network received"}, kNetworkFanOut,
                                   {SeverityNotice, "Notification reload network completed"});
    const Lines kTime = between({SeverityNotice, "Time reload notification received"}, kTimeFanOut,
                                {SeverityNotice, "Time reload notification completed"});
};

TEST_F(Notifications, AreHandledOneAfterTheOther) {
    const RunningThread thread(keywarden::notificationHandler);
    ASSERT_TRUE(notify("nt\n"));
    ASSERT_TRUE(comes(8));
    EXPECT_EQ(CapturedLog::lines(), after(kNetwork, kTime));
}

TEST_F(Notifications, OtherCharactersAreIgnored) {
    const RunningThread thread(keywarden::notificationHandler);
    ASSERT_TRUE(notify("NTx \r\n\t7"));
    ASSERT_TRUE(notify("t"));
    ASSERT_TRUE(comes(4));
    EXPECT_EQ(CapturedLog::lines(), kTime);
}

TEST_F(Notifications, OfManyWritersAreAllHandled) {
    const RunningThread thread(keywarden::notificationHandler);
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(notify("t")) << i;
    EXPECT_TRUE(becomes([this] { return CapturedLog::count(SeverityNotice, kTime.back().text) == 200; }))
        << CapturedLog::lines().size();
}

TEST_F(Notifications, AreOnlyLoggedWhileTheClockIsUnset) {
    TestClock::set(kOldClock);
    const RunningThread thread(keywarden::notificationHandler);
    ASSERT_TRUE(notify("nt\n"));
    const std::string ignoring = "Ignoring the reload notification as the system date is invalid.";
    // Also for the line feed, which would be ignored anyway.
    EXPECT_TRUE(becomes([&] { return CapturedLog::count(SeverityInfo, ignoring) == 3; }))
        << CapturedLog::dump();
    EXPECT_EQ(linesStarting({"Notification", "Time", "Handling"}), Lines{});
}

TEST_F(Notifications, ReadTheNetworkAgain) {
    configure("web", "server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    services().push_back(std::make_shared<Service>("web"));
    CapturedLog::clear();
    const RunningThread thread(keywarden::notificationHandler);
    testsupport::TestDevice::get().setNetwork("fqdn.0 renamed.example\n");
    ASSERT_TRUE(notify("n"));
    EXPECT_TRUE(becomes([this] { return CapturedLog::contains(SeverityNotice, kNetwork.back().text); }));
    EXPECT_TRUE(CapturedLog::contains(
        SeverityNotice, "Create and Apply SelfSigned certificate for service 'web' as the network changed."))
        << CapturedLog::dump();
}

TEST_F(Notifications, WithoutMemoryForOneItIsHandledAMomentLaterAndSoIsTheNext) {
    const RunningThread thread(keywarden::notificationHandler);
    for (const char* const line :
         {"Notification reload network received", "Notification reload network completed"}) {
        CapturedLog::clear();
        CapturedLog::failFor(line);
        ASSERT_TRUE(notify("nt"));
        EXPECT_TRUE(becomes([this] { return CapturedLog::contains(SeverityNotice, kTime.back().text); }));
        EXPECT_EQ(CapturedLog::count(SeverityNotice, kNetwork.back().text), 1U);
        EXPECT_TRUE(CapturedLog::contains(SeverityError, "A notification failed: std::bad_alloc"))
            << CapturedLog::dump();
    }
}

TEST_F(Notifications, AreTraced) {
    const ExitedChild end = runToExit([this] {
        const RunningThread thread(keywarden::notificationHandler);
        notify("t\n");
        becomes([this] { return CapturedLog::contains(SeverityNotice, kTime.back().text); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    });
    EXPECT_THAT(end.standardError, HasSubstr("Start notification handler\nNotification received: \n->116\n"));
    EXPECT_THAT(end.standardError, HasSubstr("Notification received: \n->10\n"));
}

TEST_F(Notifications, FifoThatIsLostEndsTheDaemon) {
    const ExitedChild end = runToExit([] {
        // Something that cannot be moved aside.
        std::filesystem::remove(fifo());
        std::filesystem::create_directory(fifo());
        if (::mount("tmpfs", fifo().c_str(), "tmpfs", 0, nullptr) != 0)
            ::_exit(1);
        keywarden::notificationHandler(nullptr);
    });
    const std::string failure = "Failed to open the fifo file:" + fifo() + " to read the notifications.";
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_TRUE(end.logged(SeverityError, failure));
    EXPECT_TRUE(end.logged(SeverityEmergency, "Stopping with the code 12 due to " + failure + "..."));
    ::umount(fifo().c_str());
}

TEST_F(Notifications, FolderInTheFifosPlaceIsMovedAside) {
    std::filesystem::remove(fifo());
    sandbox().write("pipes/notification.signal/inside", "");
    const RunningThread thread(keywarden::notificationHandler);
    ASSERT_TRUE(becomes([] { return std::filesystem::is_fifo(fifo()); }));
    EXPECT_TRUE(notify("t"));
    EXPECT_TRUE(comes(4));
}

TEST_F(Notifications, FifoThatWasReplacedIsMadeAgain) {
    const RunningThread thread(keywarden::notificationHandler);
    ASSERT_TRUE(notify("t"));
    ASSERT_TRUE(comes(4));
    {
        const UniqueFd last(::open(fifo().c_str(), O_WRONLY | O_CLOEXEC));
        std::filesystem::remove(fifo());
        sandbox().write("pipes/notification.signal", "");
    }
    ASSERT_TRUE(becomes([] { return std::filesystem::is_fifo(fifo()); }));
    EXPECT_TRUE(becomes([] { return rightsOf(fifo()) == "0720 root kwmanage"; })) << rightsOf(fifo());
    ASSERT_TRUE(notify("t"));
    EXPECT_TRUE(becomes([this] { return CapturedLog::count(SeverityNotice, kTime.back().text) == 2; }));
}

class Watcher : public Notifications {};

TEST_F(Watcher, SignalEndsTheOtherThreads) {
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        const ExitedChild end = runToExit([signal] {
            const sigset_t stops = StopRequest::signals();
            ::sigprocmask(SIG_BLOCK, &stops, nullptr);
            keywarden::startThreads();
            CapturedLog::clear();
            ::kill(::getpid(), signal);
            keywarden::joinThreads();
            keywarden::Log::write(SeverityInfo, StopRequest::isRaised() ? "stopping" : "going on");
        });
        EXPECT_TRUE(end.exitedWith(0)) << end.dump();
        EXPECT_EQ(
            end.log,
            (Lines{
                {SeverityInfo, std::string("Received fatal signal : ") + ::strsignal(signal)},
                {SeverityError, "No thread with the ID threadMonitorTimeNetworkConfig could be found. "},
                {SeverityInfo, "stopping"},
            }))
            << end.dump();
    }
}

TEST_F(Watcher, WithoutMemoryForItsLineStillEndsTheOtherThreads) {
    const ExitedChild end = runToExit([] {
        const sigset_t stops = StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        keywarden::startThreads();
        CapturedLog::failFor("Received fatal signal");
        ::kill(::getpid(), SIGTERM);
        keywarden::joinThreads();
        std::exit(3);
    });
    EXPECT_TRUE(end.exitedWith(3)) << end.dump();
    EXPECT_TRUE(end.logged(SeverityError, "Saying which signal was received failed: std::bad_alloc"));
}

TEST_F(Watcher, MonitorIsNotStartedWithoutItsSettings) {
    const ExitedChild end = runToExit([] {
        const sigset_t stops = StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        keywarden::startThreads();
        keywarden::Log::write(SeverityInfo, keywarden::threadMonitorTimeNetworkConfig == 0 ? "none" : "one");
        ::kill(::getpid(), SIGTERM);
        keywarden::joinThreads();
    });
    EXPECT_TRUE(end.logged(SeverityError, "value for TimeDrfitSleepIntervalSec is 0")) << end.dump();
    EXPECT_TRUE(end.logged(SeverityInfo, "none"));
}

TEST_F(Watcher, ThreadsThatHaveEndedAreNoTrouble) {
    const ExitedChild end = runToExit([] {
        const sigset_t stops = StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        for (auto* const handle :
             {&keywarden::threadNotificationHandler, &keywarden::threadMonitorTimeNetworkConfig}) {
            pthread_t thread{};
            ::pthread_create(
                &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
            *handle = thread;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ::kill(::getpid(), SIGTERM);
        keywarden::MonitorShutdownSigReceived(nullptr);
        keywarden::joinThreads();
    });
    EXPECT_EQ(end.log, (Lines{{SeverityInfo, "Received fatal signal : Terminated"}})) << end.dump();
}

TEST_F(Watcher, StopEndsAScriptThatTheNotificationThreadWaitsFor) {
    configure("web", "server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    const auto start = std::chrono::steady_clock::now();
    const ExitedChild end = runToExit([] {
        const sigset_t stops = StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        services().push_back(std::make_shared<Service>("web"));
        sandbox().write("owner.sh", "#!/bin/sh\n: > '" + sandbox().path("hanging") + "'\nexec sleep 300\n",
                        0755);
        testsupport::TestDevice::get().setNetwork("fqdn.0 renamed.example\n");
        keywarden::startThreads();
        notify("n");
        becomes([] { return Sandbox::exists(sandbox().path("hanging")); });
        ::kill(::getpid(), SIGTERM);
        keywarden::joinThreads();
        keywarden::shutdown();
    });
    std::filesystem::remove(sandbox().path("hanging"));
    EXPECT_TRUE(end.exitedWith(10)) << end.dump();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
}

using ThreadSettings = DaemonTest;

TEST_F(ThreadSettings, WithoutASleepTimeAreInvalid) {
    thread_arguments arguments;
    arguments.sleepTime = 7;
    arguments.thresholdValue = 7;
    EXPECT_FALSE(CheckIfThreadConfigParamValid(&arguments));
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, "value for TimeDrfitSleepIntervalSec is 0"}}));
    EXPECT_EQ(arguments.sleepTime, 0);
    EXPECT_EQ(arguments.thresholdValue, 0);
}

using ThreadSettingsDeathTest = FreshDaemonTest;

TEST_F(ThreadSettingsDeathTest, WithoutAThresholdAreInvalid) {
    EXPECT_EXIT(
        {
            configureDaemon("root", "kwmanage", "TimeDriftSleepTime 60");
            tellLogAtExit();
            thread_arguments arguments;
            std::exit(CheckIfThreadConfigParamValid(&arguments) ? 1 : 2);
        },
        testing::ExitedWithCode(2), HasSubstr("3 value for ThresholdValInSec is 0\n"));
}

TEST_F(ThreadSettingsDeathTest, WithBothAreFilled) {
    EXPECT_EXIT(
        {
            configureDaemon("root", "kwmanage", "TimeDriftSleepTime 60\nTimeDriftThresholdValue 5");
            tellLogAtExit();
            thread_arguments arguments;
            const bool valid = CheckIfThreadConfigParamValid(&arguments);
            std::exit(valid && arguments.sleepTime == 60 && arguments.thresholdValue == 5 ? 3 : 1);
        },
        testing::ExitedWithCode(3), "");
}

TEST_F(ThreadSettingsDeathTest, WithBothStartTheMonitorAndASignalEndsIt) {
    EXPECT_EXIT(
        {
            configureDaemon("root", "kwmanage", "TimeDriftSleepTime 60\nTimeDriftThresholdValue 5");
            std::filesystem::create_directories(pipes());
            keywarden::createNotificationFifo();
            const sigset_t stops = StopRequest::signals();
            ::sigprocmask(SIG_BLOCK, &stops, nullptr);
            keywarden::startThreads();
            if (keywarden::threadMonitorTimeNetworkConfig == 0)
                std::exit(1);
            ::kill(::getpid(), SIGQUIT);
            keywarden::joinThreads();
            tellLogAtExit();
            std::exit(CapturedLog::containsPart("No thread with the ID") ? 1 : 3);
        },
        testing::ExitedWithCode(3), HasSubstr("6 Received fatal signal : Quit\n"));
}

class Monitor : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        TestClock::shift(0);
        arguments.thresholdValue = 5;
        arguments.sleepTime = 1;
    }
    static Lines driftLines() {
        return linesStarting({"Detected", "Time drift", "Handling", "Time reload", "Ignoring"});
    }
    thread_arguments arguments;
};

TEST_F(Monitor, JumpOfTheClockIsTold) {
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    TestClock::shift(10);
    ASSERT_TRUE(becomes([] { return CapturedLog::contains(SeverityNotice, "Time reload completed"); }));
    const Lines lines = driftLines();
    ASSERT_EQ(lines.size(), 5U) << CapturedLog::dump();
    EXPECT_EQ(lines[0].severity, SeverityNotice);
    const std::string start = "Detected time drift of ";
    ASSERT_EQ(lines[0].text.substr(0, start.size()), start);
    const double drift = std::stod(lines[0].text.substr(start.size()));
    EXPECT_NEAR(drift, 10, 0.1) << "to the precision of the clocks";
    EXPECT_EQ(lines[0].text, start + std::to_string(drift) + " Sec ");
    EXPECT_EQ(lines[1], (testsupport::LogLine{SeverityNotice, "Time drift is detected so reload the time."}));
    EXPECT_EQ(lines[2], kTimeFanOut[0]);
    EXPECT_EQ(lines[3], kTimeFanOut[1]);
    EXPECT_EQ(lines[4], (testsupport::LogLine{SeverityNotice, "Time reload completed"}));
    // The new time is the reference: nothing more comes, and a jump back is one again.
    CapturedLog::clear();
    TestClock::shift(0);
    ASSERT_TRUE(becomes([] { return CapturedLog::contains(SeverityNotice, "Time reload completed"); }));
    EXPECT_EQ(linesStarting({"Detected time drift of -"}).size(), 1U) << CapturedLog::dump();
}

TEST_F(Monitor, WithoutMemoryForOneLookTheNextIsTaken) {
    CapturedLog::failFor("Detected time drift");
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    TestClock::shift(10);
    ASSERT_TRUE(becomes([] {
        return CapturedLog::contains(SeverityError, "A look of the monitor failed: std::bad_alloc");
    })) << CapturedLog::dump();
    TestClock::shift(0);
    EXPECT_TRUE(becomes([] { return CapturedLog::contains(SeverityNotice, "Time reload completed"); }));
}

TEST_F(Monitor, SmallJumpIsNothing) {
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    TestClock::shift(3);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(Monitor, JumpIsOnlyLoggedWhileTheClockIsUnset) {
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    setNetwork("fqdn.0 other.example\n");  // not looked at in this pass
    TestClock::set(1000);
    ASSERT_TRUE(becomes([] {
        return CapturedLog::contains(SeverityInfo, "Ignoring the time drift as the system date is invalid.");
    }));
    EXPECT_EQ(linesStarting({"Detected", "Ignoring the Change"}), Lines{}) << CapturedLog::dump();
    // The next pass looks at the network again, and only logs that too.
    EXPECT_TRUE(becomes([] {
        return CapturedLog::contains(SeverityInfo,
                                     "Ignoring the ChangeInNetworkConfigs the system date is invalid.");
    })) << CapturedLog::dump();
}

TEST_F(Monitor, NetworkIsToldOnceAfterTheStartAndAtEveryChange) {
    setNetwork("fqdn.0 first.example\n");
    const Lines told = between({SeverityNotice, "Change in network configuration detected."}, kNetworkFanOut,
                               {SeverityNotice, "reload network completed"});
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    ASSERT_TRUE(becomes([] { return CapturedLog::lines().size() >= 4; }));
    EXPECT_EQ(CapturedLog::lines(), told);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(CapturedLog::lines(), told) << "nothing has changed";
    testsupport::TestDevice::get().setNetwork("fqdn.0 second.example\n");
    ASSERT_TRUE(becomes([] { return CapturedLog::lines().size() >= 8; }));
    EXPECT_EQ(CapturedLog::lines(), after(told, told));
}

TEST_F(Monitor, DeviceWithoutANetworkIsNoChange) {
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(Monitor, ChangeIsSeenOnce) {
    const auto after = [](const std::string& printed) {
        testsupport::TestDevice::get().setNetwork(printed);
        return CheckChangeInNetworkConfig();
    };
    after("fqdn.0 a\n");
    EXPECT_FALSE(after("fqdn.0 a\n"));
    EXPECT_TRUE(after("fqdn.0 b\n"));
    EXPECT_FALSE(after("fqdn.0 b\n"));
    EXPECT_TRUE(after("fqdn.0 b\nfqdn.1 c\n"));
    EXPECT_FALSE(after("fqdn.1 c\nfqdn.0 b\n")) << "the order of the lines says nothing";
    EXPECT_TRUE(after(""));
    EXPECT_FALSE(after(""));
}

TEST_F(Monitor, NegativeSleepTimeDoesNotSpin) {
    arguments.sleepTime = -5;
    setNetwork("fqdn.0 a.example\n");
    const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
    ASSERT_TRUE(becomes([] { return CapturedLog::lines().size() >= 4; }));
    testsupport::TestDevice::get().setNetwork("fqdn.0 b.example\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(CapturedLog::lines().size(), 4U) << "it sleeps";
}

TEST_F(Monitor, StopsAtOnceAndOften) {
    arguments.sleepTime = 60;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 30; ++i) {
        const RunningThread thread(keywarden::MonitorTimeNetworkConfig, &arguments);
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 5));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

}  // namespace daemontest
