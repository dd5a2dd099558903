// How the daemon ends.
#include "daemon/Exit.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "DaemonFixture.h"
#include "daemon/DaemonState.h"
#include "service/Service.h"
#include "support/StopRequest.h"
#include "testsupport/Child.h"

namespace daemontest {

using keywarden::exitDaemon;
using keywarden::Service;
using keywarden::services;
using keywarden::SeverityEmergency;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using keywarden::StopRequest;
using testing::HasSubstr;
using testsupport::CapturedLog;
using testsupport::ExitedChild;
using testsupport::runToExit;
using testsupport::Sandbox;

class Exit : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        sandbox().write("keywardd.lock", "");
        sandbox().write("keywardd.pid", "4711");
    }
};

TEST_F(Exit, FailureIsAnEmergencyWithItsReason) {
    const ExitedChild end = runToExit([] { exitDaemon(12, "no more room", true); });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_EQ(end.log, (Lines{{SeverityEmergency, "Stopping with the code 12 due to no more room..."}}));
    EXPECT_FALSE(Sandbox::exists(lockFile()));
    EXPECT_FALSE(Sandbox::exists(pidFile()));
    // The trace, and the echo of the log line.
    EXPECT_EQ(end.standardError,
              "Stopping with the code 12 due to no more room...\n"
              "Stopping with the code 12 due to no more room...\n");
}

TEST_F(Exit, EmptyReasonLeavesNoGap) {
    const ExitedChild end = runToExit([] { exitDaemon(12, "", true); });
    EXPECT_EQ(end.log, (Lines{{SeverityEmergency, "Stopping with the code 12..."}}));
}

TEST_F(Exit, SecondInstanceLeavesTheFilesOfTheFirst) {
    const ExitedChild end = runToExit([] { exitDaemon(13, "keywardd already running", false); });
    EXPECT_TRUE(end.exitedWith(13));
    EXPECT_EQ(end.log,
              (Lines{{SeverityEmergency, "Stopping with the code 13 due to keywardd already running..."}}));
    EXPECT_TRUE(Sandbox::exists(lockFile()));
    EXPECT_EQ(Sandbox::read(pidFile()), "4711");
}

TEST_F(Exit, OrderlyStopIsOnlyANotice) {
    const ExitedChild end = runToExit([] { exitDaemon(10, "", true); });
    EXPECT_TRUE(end.exitedWith(10));
    EXPECT_EQ(end.log, (Lines{{SeverityNotice, "Stopping with the code 10..."}}));
}

TEST_F(Exit, FilesThatAreNotThereAreNothingToReport) {
    std::filesystem::remove(lockFile());
    std::filesystem::remove(pidFile());
    const ExitedChild end = runToExit([] { exitDaemon(12, "x", true); });
    EXPECT_EQ(end.log.size(), 1U) << end.dump();
}

TEST_F(Exit, FilesThatCannotBeRemovedAreReported) {
    std::filesystem::remove(pidFile());
    sandbox().write("keywardd.pid/inside", "");
    const ExitedChild end = runToExit([] { exitDaemon(12, "x", true); });
    EXPECT_EQ(end.log, (Lines{
                           {SeverityError, "Failed to remove file '" + pidFile() + "' : Directory not empty"},
                           {SeverityEmergency, "Stopping with the code 12 due to x..."},
                       }));
    EXPECT_FALSE(Sandbox::exists(lockFile()));
}

TEST_F(Exit, OnlyTheFirstOfManyCallersProceeds) {
    const ExitedChild end = runToExit([] {
        std::vector<std::thread> threads;
        threads.reserve(8);
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([i] { exitDaemon(20 + i, "caller " + std::to_string(i), true); });
        for (std::thread& thread : threads)
            thread.join();
    });
    ASSERT_EQ(end.log.size(), 1U) << end.dump();
    bool matches = false;
    for (int i = 0; i < 8; ++i)
        matches = matches || (end.exitedWith(20 + i) &&
                              end.log[0].text == "Stopping with the code " + std::to_string(20 + i) +
                                                     " due to caller " + std::to_string(i) + "...");
    EXPECT_TRUE(matches) << end.dump();
}

TEST_F(Exit, ReadinessMarkerComesAndGoes) {
    const std::string run = sandbox().path("run");
    const ExitedChild end = runToExit([&run] {
        useOwnRun(run);
        keywarden::ready();
        const std::string marker = "/var/run/ready/" + std::to_string(::getpid());
        CapturedLog::clear();
        keywarden::Log::write(SeverityInfo, Sandbox::exists(marker) ? "there" : "missing");
        sandbox().write("marker", marker.substr(std::string("/var/run").size()));
        exitDaemon(10, "", true);
    });
    EXPECT_TRUE(end.logged(SeverityInfo, "there")) << end.dump();
    EXPECT_FALSE(Sandbox::exists(run + Sandbox::read(sandbox().path("marker"))));
    EXPECT_TRUE(Sandbox::exists(run + "/ready"));
}

TEST_F(Exit, MarkerThatCannotBeMadeIsLogged) {
    const ExitedChild end = runToExit([] {
        // Where the kernel reaps children by itself, no shell's end can be waited for.
        static_cast<void>(::signal(SIGCHLD, SIG_IGN));
        keywarden::ready();
        keywarden::unready();
    });
    EXPECT_EQ(end.log,
              (Lines{
                  {SeverityError, "ready(): Failed to touch /var/run/ready PID, err: No child processes"},
                  {SeverityError, "unready(): Failed to touch /var/run/ready PID, err: No child processes"},
              }));
}

class Shutdown : public Exit {
  protected:
    /// Two services that run as in the daemon.
    void startServices() {
        for (const char* id : {"beta", "alpha"}) {
            configure(id, "server yes");
            services().push_back(std::make_shared<Service>(id));
            services().back()->initTimer();
            services().back()->startHandler();
        }
        ::mkfifo(fifo().c_str(), 0600);
        CapturedLog::clear();
    }
};

TEST_F(Shutdown, UnloadsEveryServiceInOrderAndCleansUp) {
    const ExitedChild end = runToExit([this] {
        startServices();
        keywarden::shutdown();
    });
    EXPECT_TRUE(end.exitedWith(10)) << end.dump();
    EXPECT_EQ(linesStarting(end.log, {"The service beta is stopp", "The service alpha is stopp", "Stopping"}),
              (Lines{
                  {SeverityNotice, "The service beta is stopping..."},
                  {SeverityInfo, "The service beta is stopping its timer..."},
                  {SeverityNotice, "The service beta is stopped."},
                  {SeverityNotice, "The service alpha is stopping..."},
                  {SeverityInfo, "The service alpha is stopping its timer..."},
                  {SeverityNotice, "The service alpha is stopped."},
                  {SeverityNotice, "Stopping with the code 10..."},
              }));
    EXPECT_EQ(events(), (std::vector<std::string>{"beta start", "alpha start", "beta stop", "alpha stop"}));
    for (const std::string& path : {fifo(), pipes(), lockFile(), pidFile()})
        EXPECT_FALSE(Sandbox::exists(path)) << path;
}

TEST_F(Shutdown, OwnersThatHangAreEndedInTime) {
    const auto start = std::chrono::steady_clock::now();
    const ExitedChild end = runToExit([this] {
        startServices();
        sandbox().write("owner.sh", "#!/bin/sh\nexec sleep 300\n", 0755);
        keywarden::shutdown();
    });
    EXPECT_TRUE(end.exitedWith(10)) << end.dump();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
}

TEST_F(Shutdown, OwnerThatThrowsDoesNotKeepTheDaemon) {
    const ExitedChild end = runToExit([this] {
        configureThrowing("gamma");
        services().push_back(std::make_shared<Service>("gamma"));
        ownerThrows("stopped", "odd", "");
        keywarden::shutdown();
    });
    EXPECT_TRUE(end.exitedWith(10)) << end.dump();
    EXPECT_TRUE(end.logged(SeverityError, "Exception while stopping the service gamma: Unknown error"));
}

TEST_F(Shutdown, IsLeftAloneUnlessAskedFor) {
    const ExitedChild end = runToExit([] { keywarden::shutdownIfAsked(); });
    EXPECT_TRUE(end.exitedWith(0));
    EXPECT_EQ(end.log, Lines{});
}

TEST_F(Shutdown, SignalThatWaitsAsksForIt) {
    const ExitedChild end = runToExit([] {
        const sigset_t stops = StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        ::kill(::getpid(), SIGTERM);
        keywarden::shutdownIfAsked();
    });
    EXPECT_TRUE(end.exitedWith(10)) << end.dump();
    EXPECT_EQ(end.log, (Lines{
                           {SeverityInfo, "Received fatal signal : Terminated"},
                           {SeverityNotice, "Stopping with the code 10..."},
                       }));
}

TEST_F(Shutdown, StopWithoutASignalNamesNone) {
    const ExitedChild end = runToExit([] {
        StopRequest::raise();
        keywarden::shutdownIfAsked();
    });
    EXPECT_TRUE(end.exitedWith(10));
    EXPECT_EQ(end.log, (Lines{{SeverityNotice, "Stopping with the code 10..."}}));
}

// In a process that has not read its configuration yet.
using ExitDeathTest = FreshDaemonTest;

TEST_F(ExitDeathTest, ConfigurationThatCannotBeReadLeavesTheFiles) {
    EXPECT_EXIT(
        {
            tellLogAtExit();
            std::filesystem::remove(sandbox().path("config.daemon"));
            exitDaemon(12, "", true);
        },
        testing::ExitedWithCode(12),
        HasSubstr("0 Std exception caught while removing the files while exiting the daemon: Failed to open "
                  "configuration file : "));
}

}  // namespace daemontest
