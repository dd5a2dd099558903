// Reloads, asked for by requesters and called.
#include <fcntl.h>
#include <sys/file.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "ServiceFixture.h"
#include "support/KeywardenDaemonException.h"

namespace servicetest {

using keywarden::KeywardenDaemonException;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using keywarden::SeverityWarning;
using keywarden::UniqueFd;
using testsupport::CapturedLog;
using testsupport::Sandbox;
using testsupport::TestDevice;
using Words = std::vector<std::string>;

class ServiceReload : public ServiceTest {
  protected:
    [[nodiscard]] std::string reloaded() const { return "The service " + id + " is reloaded."; }
    [[nodiscard]] std::string failed(const std::string& reason) const {
        return "Daemon exception during reload request for service '" + id + "': " + reason;
    }
    std::string askReload() { return ask(request("config", "reload")); }
    std::string askStatus() { return ask(request("config", "status")); }
    void removeFile() const {
        std::filesystem::remove(TestDevice::get().servicesDirectory() + "/" + id + ".conf");
    }
    [[nodiscard]] static ino_t inode(const std::string& path) {
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
    }
    // By any thread of this process.
    [[nodiscard]] static bool isHeldOpen(const std::string& path) {
        std::error_code gone;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            if (std::filesystem::read_symlink(entry.path(), gone) == path)
                return true;
        return false;
    }
};

TEST_F(ServiceReload, TellsEveryStepInItsOrder) {
    configure("server yes");
    run();
    CapturedLog::clear();
    events();
    EXPECT_EQ(askReload(), "0 Reload Successful");
    EXPECT_EQ(linesStarting({"The service", "Reload", "Server for"}),
              (Lines{
                  {SeverityNotice, "Reload the service " + id},
                  {SeverityNotice, "The service " + id + " is stopping..."},
                  {SeverityInfo, "The service " + id + " is stopping its timer..."},
                  {SeverityInfo, "The service " + id + " stopped its timer."},
                  {SeverityNotice, "The service " + id + " is stopped."},
                  {SeverityNotice, "The service " + id + " is starting..."},
                  {SeverityNotice, "Server for service " + id + " starting..."},
                  {SeverityNotice, "Server for service " + id + " started."},
                  {SeverityNotice, "Reload: The service " + id + " is started."},
                  {SeverityInfo, "The service " + id + " is starting his timer..."},
                  {SeverityInfo, "The service " + id + " started his timer."},
                  {SeverityNotice, reloaded()},
              }));
    EXPECT_EQ(events(), (Words{"stop", "start"}));
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceReload, ReadsTheFileAgain) {
    configure("server yes");
    run();
    EXPECT_EQ(ask(request("ca", "add", {"/nonexistent"})), "7 CA doesn't exist for " + id);
    configure("ca yes");
    EXPECT_EQ(askReload(), "0 Reload Successful");
    EXPECT_EQ(ask(request("server", "createcsr")), "7 Server doesn't exist for " + id);
    EXPECT_NE(ask(request("ca", "add", {"/nonexistent"})), "7 CA doesn't exist for " + id);
    configure("keyGroup no-such-group");
    EXPECT_EQ(askReload(), "0 Reload Successful");
    EXPECT_EQ(ask(request("ca", "add", {"/nonexistent"})), "7 CA doesn't exist for " + id);
}

TEST_F(ServiceReload, TimerRunsOnlyWithAServer) {
    configure("server yes");
    run();
    configure();
    CapturedLog::clear();
    EXPECT_EQ(askReload(), "0 Reload Successful");
    EXPECT_EQ(linesStarting({"The service " + id + " is starting his"}), Lines{});
    CapturedLog::clear();
    service().stopTimer();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityInfo, "The service " + id + " is stopping its timer..."}}));
}

TEST_F(ServiceReload, RequesterKeepsItsOutputAndItsLock) {
    configure();
    run();
    Requester requester(id);
    const ino_t lockFile = inode(requester.lock());
    const UniqueFd lock(::open(requester.lock().c_str(), O_WRONLY));
    ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
    sandbox().write("pipes/" + id + "/stray", "");

    requester.makeOutput();
    const ino_t output = inode(requester.output());
    requester.openOutput();
    ASSERT_TRUE(requester.send(request("config", "reload")));
    EXPECT_EQ(requester.receive(), "0 Reload Successful");

    EXPECT_EQ(inode(requester.output()), output);
    EXPECT_EQ(inode(requester.lock()), lockFile);
    EXPECT_FALSE(Sandbox::exists(pipes() + "/stray"));
    const UniqueFd other(::open(requester.lock().c_str(), O_WRONLY));
    EXPECT_NE(::flock(other.get(), LOCK_EX | LOCK_NB), 0) << "the lock is still held";
    EXPECT_EQ(rightsOf(requester.lock()), "0760 kwmanage");
    EXPECT_EQ(rightsOf(requester.input()), "0720 kwmanage");
    requester.leave();
}

TEST_F(ServiceReload, MissingLockFileIsMade) {
    configure();
    run();
    std::filesystem::remove(Requester(id).lock());
    EXPECT_EQ(askReload(), "0 Reload Successful");
    EXPECT_EQ(rightsOf(Requester(id).lock()), "0760 kwmanage");
}

TEST_F(ServiceReload, SecondOneIsDroppedWhileTheFirstRuns) {
    configure();
    run();
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    hold("start");
    ASSERT_TRUE(requester.send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    CapturedLog::clear();
    service().reloadFunc();
    service().reloadFunc();
    release("start");
    EXPECT_EQ(requester.receive(), "0 Reload Successful");
    requester.leave();
    EXPECT_EQ(CapturedLog::count(SeverityNotice, reloaded()), 1U);
    EXPECT_EQ(linesStarting({"Reload the service"}), Lines{});
    EXPECT_EQ(events(), (Words{"start", "stop", "start"}));
}

TEST_F(ServiceReload, NextOneIsTakenAsSoonAsTheAnswerIsThere) {
    configure();
    run();
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(askReload(), "0 Reload Successful") << i;
    EXPECT_EQ(CapturedLog::count(SeverityNotice, reloaded()), 30U);
}

TEST_F(ServiceReload, RequesterThatNeverReadsDoesNotHoldUpTheNext) {
    configure();
    run();
    Requester deaf(id);
    deaf.makeOutput();
    for (std::size_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(deaf.send(request("config", "reload")));
        ASSERT_TRUE(becomes([&] { return CapturedLog::count(SeverityNotice, reloaded()) == i; },
                            std::chrono::seconds(10)))
            << i;
        // A request that comes before the answer to this one is answered with it.
        ASSERT_TRUE(becomes([&] { return isHeldOpen(deaf.output()); })) << i;
    }
    Requester next(id);
    next.openOutput();
    EXPECT_EQ(next.receive(), "0 Reload Successful");
    next.leave();
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceReload, RequesterThatLeftIsLogged) {
    configure();
    run();
    ASSERT_TRUE(Requester(id).send(request("config", "reload")));
    EXPECT_TRUE(becomes([this] {
        return CapturedLog::contains(SeverityWarning, "'" + Requester(id).output() +
                                                          "' file not found.\nLooks like the requester is no "
                                                          "more present to receive the response back!");
    }));
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceReload, RuntimeFailureLeavesTheServiceStopped) {
    configure("server yes");
    run();
    removeFile();
    CapturedLog::clear();
    const std::string reason = "No configuration file for the service " + id;
    EXPECT_EQ(askReload(), "1 " + failed(reason));
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError, "Runtime error caught while reloading service-'" + id + "': " + reason));
    EXPECT_TRUE(CapturedLog::contains(SeverityError, failed(reason)));
    EXPECT_FALSE(service().isLoaded());
    EXPECT_EQ(askStatus(), "0 stoped");
    for (const char* target : {"server", "ca", "client"})
        EXPECT_EQ(ask(request(target, "getcertinfo")), "7 The service is not running.");
    CapturedLog::clear();
    EXPECT_EQ(askReload(), "7 Not able to reload the service-" + id);
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Not able to reload the service-" + id));
    EXPECT_EQ(ask(request("config", "help")), "4 Bad Command config");
}

TEST_F(ServiceReload, DaemonFailureIsAStandardOneToTheLog) {
    configure();
    run();
    configure("managmentGroup no-such-group");
    const std::string reason = "The group 'no-such-group' of the service '" + id + "' doesn't exist";
    EXPECT_EQ(askReload(), "1 " + failed(reason));
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError, "Std exception caught while reloading service-'" + id + "': " + reason));
    EXPECT_EQ(askStatus(), "0 stoped");
}

TEST_F(ServiceReload, UnknownFailureHasATextOfItsOwn) {
    configureThrowingOwner();
    run();
    ownerThrows("started", "odd");
    EXPECT_EQ(askReload(), "1 " + failed("Unknown error"));
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, "Unknown exception caught while reloading service-" + id));
}

TEST_F(ServiceReload, OwnerThatThrowsAtTheStopFailsIt) {
    configureThrowingOwner("server yes");
    run();
    ownerThrows("stopped", "runtime", "not now");
    EXPECT_EQ(askReload(), "1 " + failed("not now"));
    EXPECT_EQ(askStatus(), "0 stoped");
}

TEST_F(ServiceReload, FailureCarriesItsCodeToTheCallerButNotToTheRequester) {
    configureThrowingOwner();
    start();
    ownerThrows("started", "coded", "full");
    int code = 0;
    std::string text;
    try {
        service().reload();
    } catch (const KeywardenDaemonException& error) {
        code = error.code();
        text = error.what();
    }
    EXPECT_EQ(code, 42);
    EXPECT_EQ(text, "full");
    EXPECT_FALSE(service().isLoaded());
}

TEST_F(ServiceReload, FailureWithACodeIsAnsweredWithOne) {
    configureThrowingOwner();
    run();
    ownerThrows("started", "coded", "full");
    EXPECT_EQ(askReload(), "1 " + failed("full"));
}

TEST_F(ServiceReload, FailureAfterTheLoadLeavesNoTimer) {
    configure("server yes");
    run();
    // Something immovable where the input fifo has to be made.
    hold("start");
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    ASSERT_TRUE(requester.send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    const Blocked input(requester.input());
    release("start");
    EXPECT_EQ(requester.receive(), "1 " + failed("Failed to create Fifo IN for service " + id));
    requester.leave();
    EXPECT_FALSE(service().isLoaded());
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "The service " + id + " started his timer."));
    // Neither the reload nor the second attempt to listen could make it.
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Failed to create Fifo IN for service " + id));
    CapturedLog::clear();
    service().stopTimer();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityInfo, "The service " + id + " is stopping its timer..."}}));
}

TEST_F(ServiceReload, EndOfTheServiceWaitsForARunningOne) {
    configure("server yes");
    run();
    hold("start");
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    ASSERT_TRUE(requester.send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    std::string answer;
    std::thread receiving([&] { answer = requester.receive(); });
    std::thread ending([this] { destroy(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release("start");
    ending.join();
    receiving.join();
    // The answer may have gone out before the end cut it off.
    EXPECT_TRUE(answer == "7 The daemon just terminate" || answer == "0 Reload Successful" ||
                answer == "0 Reload Successful7 The daemon just terminate")
        << answer;
    EXPECT_FALSE(Sandbox::exists(pipes()));
    EXPECT_EQ(events(), (Words{"start", "stop", "start", "stop"}));
}

TEST_F(ServiceReload, EndOfTheServiceDoesNotMeetANewOne) {
    configure("server yes");
    std::atomic<bool> done{false};
    std::thread asking([this, &done] {
        const Requester requester(id);
        const std::string line = request("config", "reload");
        while (!done) {
            const UniqueFd input(::open(requester.input().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            if (input)
                static_cast<void>(!::write(input.get(), line.data(), line.size()));
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    const auto wasReloaded = [this] {
        return CapturedLog::contains(SeverityNotice, "Reload the service " + id);
    };
    // On a busy machine it takes some more until one is asked for in time.
    for (int i = 0; i < 25 || (i < 500 && !wasReloaded()); ++i) {
        run();
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 7));
        destroy();
        EXPECT_FALSE(Sandbox::exists(pipes()));
    }
    done = true;
    asking.join();
    EXPECT_TRUE(wasReloaded());
}

}  // namespace servicetest
