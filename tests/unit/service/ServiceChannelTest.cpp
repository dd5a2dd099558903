// The pipes of a service: files, requests, answers.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "ServiceFixture.h"
#include "support/StopRequest.h"
#include "testsupport/Child.h"
#include "testsupport/TestClock.h"
#include "testsupport/Traces.h"

namespace servicetest {

using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using keywarden::SeverityWarning;
using keywarden::StopRequest;
using keywarden::UniqueFd;
using testsupport::CapturedLog;
using testsupport::inChild;
using testsupport::Sandbox;
using testsupport::TestClock;
using testsupport::tracesOf;
using Milliseconds = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

class ServiceChannel : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        configure();
    }

    std::string askStatus() { return ask(request("config", "status")); }
    [[nodiscard]] std::string left() const {
        return "'" + requester().output() +
               "' file not found.\nLooks like the requester is no more present to receive the response back!";
    }
    [[nodiscard]] Requester requester() const { return Requester(id); }
    [[nodiscard]] static mode_t typeOf(const std::string& path) {
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 ? info.st_mode & S_IFMT : 0;
    }
    static bool isSoon(const Clock::time_point& start) {
        return Clock::now() - start < std::chrono::seconds(5);
    }
};

TEST_F(ServiceChannel, FilesHaveTheirTypesAndRights) {
    run();
    EXPECT_EQ(rightsOf(pipes()), "0770 kwmanage");
    EXPECT_EQ(rightsOf(requester().input()), "0720 kwmanage");
    EXPECT_EQ(typeOf(requester().input()), S_IFIFO);
    EXPECT_EQ(rightsOf(requester().lock()), "0760 kwmanage");
    EXPECT_EQ(typeOf(requester().lock()), S_IFREG);
    EXPECT_FALSE(Sandbox::exists(requester().output())) << "that is the requester's to make";
}

TEST_F(ServiceChannel, ModesDoNotDependOnTheMask) {
    start();
    ::umask(0077);
    run();
    EXPECT_EQ(rightsOf(pipes()), "0770 kwmanage");
    EXPECT_EQ(rightsOf(requester().input()), "0720 kwmanage");
    EXPECT_EQ(rightsOf(requester().lock()), "0760 kwmanage");
}

TEST_F(ServiceChannel, EntersWithALine) {
    run();
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "Entering the command line analyzer for service " + id));
}

TEST_F(ServiceChannel, FilesOfAnEarlierRunAreReplaced) {
    start();
    const std::string victim = sandbox().write("victim", "keep me", 0600);
    sandbox().write("pipes/" + id + "/" + id + ".in", "old");
    std::filesystem::create_symlink(victim, requester().lock());
    run();
    EXPECT_EQ(typeOf(requester().input()), S_IFIFO);
    EXPECT_EQ(typeOf(requester().lock()), S_IFREG);
    EXPECT_EQ(rightsOf(victim), "0600 root");
    EXPECT_EQ(Sandbox::read(victim), "keep me");
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, FoldersInThePlaceOfThePipesAreMovedAside) {
    start();
    sandbox().write("pipes/" + id + "/" + id + ".in/inside", "");
    sandbox().write("pipes/" + id + "/" + id + ".lock/inside", "");
    service().startHandler();
    EXPECT_EQ(typeOf(requester().input()), S_IFIFO);
    EXPECT_EQ(typeOf(requester().lock()), S_IFREG);
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, InputThatCannotBeMadeFails) {
    start();
    const Blocked input(requester().input());
    EXPECT_EQ(failureOf([this] { service().startHandler(); }), "Failed to create Fifo IN for service " + id);
}

TEST_F(ServiceChannel, LockThatCannotBeMadeFails) {
    start();
    const Blocked lock(requester().lock());
    EXPECT_EQ(failureOf([this] { service().startHandler(); }),
              "Failed create the lock file: '" + requester().lock() + "' for service: " + id);
}

TEST_F(ServiceChannel, FileInThePlaceOfThePipesFolderIsMovedAside) {
    start();
    std::filesystem::remove_all(pipes());
    sandbox().write("pipes/" + id, "a file");
    service().startHandler();
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, StoppedHandlerIsStartedAgain) {
    run();
    service().stopHandler();
    EXPECT_FALSE(Sandbox::exists(pipes()));
    service().startHandler();
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, AnswerIsCodeBlankAndTextWithoutALineEnd) {
    run();
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, RequestThatCannotBeParsedIsLoggedAndAnswered) {
    run();
    const auto expectRefused = [this](const std::string& line, const std::string& text) {
        CapturedLog::clear();
        EXPECT_EQ(ask(line), "4 " + text);
        EXPECT_EQ(
            CapturedLog::lines(),
            (Lines{{SeverityError, "std::exception caught while creating command structure for service '" +
                                       id + "' " + text}}));
    };
    const std::string arguments = "Bad format for command. Incorrect arguments received for: ";
    expectRefused("status", "Bad format for command.");
    expectRefused("a\tb\tServer\tgetcsr", "format for command. Invalid target received: ");
    expectRefused(request("config", "status", {"x"}), arguments + "status");
    expectRefused(request("config", "status") + "\n", arguments + "status\n");
    expectRefused(request("config", "status") + "\t", arguments + "status");
    expectRefused("\n", "Bad format for command.");
}

TEST_F(ServiceChannel, EmptyRequestIsIgnored) {
    run();
    CapturedLog::clear();
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(requester().send(""));
    EXPECT_EQ(askStatus(), "0 running");
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(ServiceChannel, RequestMayComeInPieces) {
    run();
    Requester slow(id);
    slow.makeOutput();
    slow.openOutput();
    {
        const UniqueFd input(::open(slow.input().c_str(), O_WRONLY | O_CLOEXEC));
        for (const char piece : request("config", "status")) {
            ASSERT_EQ(::write(input.get(), &piece, 1), 1);
            std::this_thread::sleep_for(Milliseconds(2));
        }
    }
    EXPECT_EQ(slow.receive(), "0 running");
    slow.leave();
}

TEST_F(ServiceChannel, LongestRequestIsTakenAndALongerOneIsRefused) {
    configure("server yes");
    run();
    const std::string start = request("server", "applycrt", {""});
    const std::string longest = start + std::string(65536 - start.size(), 'x');
    const std::string of = " during user request process for service '" + id + "': ";
    EXPECT_EQ(ask(longest),
              "1 Daemon exception" + of + "Certificate " + longest.substr(start.size()) + " doesn't exit.");
    const std::string tooLong = "4 Bad format for command. The request is longer than 65536 bytes.";
    EXPECT_EQ(ask(longest + "x"), tooLong);
    EXPECT_EQ(ask(longest + std::string(5000000, 'x')), tooLong);
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, RequestThatIsNotEndedInTimeIsRefusedAndTheNextIsServed) {
    run();
    const std::string text = "Bad format for command. The request was not ended in time.";
    UniqueFd hung(::open(requester().input().c_str(), O_WRONLY | O_CLOEXEC));
    const std::string half = request("config", "status");
    ASSERT_EQ(::write(hung.get(), half.data(), half.size()), static_cast<ssize_t>(half.size()));
    ASSERT_TRUE(becomes([&hung] {
        int unread = 1;
        return ::ioctl(hung.get(), FIONREAD, &unread) == 0 && unread == 0;
    }));
    Requester waiting(id);
    waiting.makeOutput();
    waiting.openOutput();
    TestClock::passMonotonic(60000);
    ASSERT_EQ(::write(hung.get(), "\t", 1), 1);
    EXPECT_EQ(waiting.receive(), "4 " + text);
    waiting.leave();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError,
        "std::exception caught while creating command structure for service '" + id + "' " + text))
        << CapturedLog::dump();
    EXPECT_EQ(askStatus(), "0 running");
    EXPECT_EQ(rightsOf(requester().input()), "0720 kwmanage");
}

TEST_F(ServiceChannel, RequestMayHoldAnyByte) {
    run();
    EXPECT_EQ(ask(std::string("a\0b\t\xff\tconfig\tstatus", 19)), "0 running");
}

TEST_F(ServiceChannel, ConversationIsTraced) {
    const std::string traces = tracesOf([this] {
        run();
        EXPECT_EQ(askStatus(), "0 running");
        service().stopHandler();
    });
    EXPECT_NE(traces.find("Received: " + request("config", "status") + "\n"), std::string::npos) << traces;
    EXPECT_NE(traces.find("Send: 0 - running\nSending: 0 running\n"), std::string::npos) << traces;
}

TEST_F(ServiceChannel, RequesterThatLeftIsLoggedAndTheNextIsServed) {
    run();
    ASSERT_TRUE(requester().send(request("config", "status")));
    EXPECT_TRUE(becomes([this] { return CapturedLog::contains(SeverityWarning, left()); }));
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, RequesterMayOpenItsOutputLater) {
    run();
    Requester slow(id);
    slow.makeOutput();
    ASSERT_TRUE(slow.send(request("config", "status")));
    std::this_thread::sleep_for(Milliseconds(150));
    slow.openOutput();
    EXPECT_EQ(slow.receive(), "0 running");
    slow.leave();
}

TEST_F(ServiceChannel, RequesterThatNeverReadsIsGivenUpAfterHalfAMinute) {
    run();
    Requester deaf(id);
    deaf.makeOutput();
    ASSERT_TRUE(deaf.send(request("config", "status")));
    std::this_thread::sleep_for(Milliseconds(50));
    TestClock::passMonotonic(29000);
    std::this_thread::sleep_for(Milliseconds(100));
    // Nothing has reached it by now, and nothing does from now on.
    TestClock::passMonotonic(1000);
    std::this_thread::sleep_for(Milliseconds(100));
    deaf.openOutput();
    ASSERT_TRUE(deaf.send(request("config", "help")));
    EXPECT_EQ(deaf.receive(), "4 Bad Command config");
    deaf.leave();
    EXPECT_FALSE(CapturedLog::contains(SeverityWarning, left()));
}

TEST_F(ServiceChannel, AnswerToARequesterThatDiedIsNotTheNextOnes) {
    run();
    for (const bool opensAtOnce : {true, false}) {
        CapturedLog::clear();
        requester().makeOutput();
        std::thread answering([this] { service().sendResponse(0, "not for you"); });
        std::this_thread::sleep_for(Milliseconds(50));
        Requester next(id);
        next.makeOutput();
        if (!opensAtOnce)
            std::this_thread::sleep_for(Milliseconds(100));
        next.openOutput();
        EXPECT_EQ(next.receive(Milliseconds(100)), "no answer");
        answering.join();
        EXPECT_TRUE(CapturedLog::contains(SeverityWarning, left()));
        next.leave();
    }
}

TEST_F(ServiceChannel, RequesterThatNeverReadsHoldsUpNobodyElse) {
    configure("server yes\nselfSignedGeneration yes");
    run();
    Requester deaf(id);
    deaf.makeOutput();
    ASSERT_TRUE(deaf.send(request("config", "status")));
    std::this_thread::sleep_for(Milliseconds(50));
    const auto start = Clock::now();
    service().networkChanged();
    service().timeChanged();
    EXPECT_TRUE(isSoon(start));
    deaf.leave();
}

TEST_F(ServiceChannel, RequesterWithoutALockFileIsLogged) {
    run();
    std::filesystem::remove(requester().lock());
    std::filesystem::create_directory(requester().lock());
    sandbox().write("pipes/" + id + "/" + id + ".out", "no fifo");
    service().sendResponse(0, "text");
    EXPECT_TRUE(
        CapturedLog::contains(SeverityNotice, "Unable to open lock file '" + requester().lock() + "'."));
}

TEST_F(ServiceChannel, LockFileIsMadeWhereItIsMissing) {
    run();
    std::filesystem::remove(requester().lock());
    sandbox().write("pipes/" + id + "/" + id + ".out", "no fifo");
    service().sendResponse(0, "text");
    EXPECT_EQ(rightsOf(requester().lock()).substr(0, 4), "0760");
}

TEST_F(ServiceChannel, LinkInThePlaceOfTheLockIsNotFollowed) {
    run();
    std::filesystem::remove(requester().lock());
    std::filesystem::create_symlink(sandbox().path("planted"), requester().lock());
    sandbox().write("pipes/" + id + "/" + id + ".out", "no fifo");
    service().sendResponse(0, "text");
    EXPECT_FALSE(Sandbox::exists(sandbox().path("planted")));
    EXPECT_TRUE(
        CapturedLog::contains(SeverityNotice, "Unable to open lock file '" + requester().lock() + "'."));
}

TEST_F(ServiceChannel, RegularFileInThePlaceOfTheOutputIsNotWritten) {
    run();
    const std::string output = sandbox().write("pipes/" + id + "/" + id + ".out", "mine");
    const auto start = Clock::now();
    service().sendResponse(0, "text");
    EXPECT_TRUE(isSoon(start));
    EXPECT_EQ(Sandbox::read(output), "mine");
    EXPECT_FALSE(CapturedLog::contains(SeverityWarning, left()));
}

TEST_F(ServiceChannel, InputInThePlaceOfTheOutputIsNotAnswered) {
    run();
    std::filesystem::create_hard_link(requester().input(), requester().output());
    CapturedLog::clear();
    ASSERT_TRUE(requester().send("no command"));
    ASSERT_TRUE(requester().send("another"));
    const std::string refusal = "std::exception caught while creating command structure for service '" + id +
                                "' Bad format for command.";
    EXPECT_TRUE(becomes([&refusal] { return CapturedLog::count(SeverityError, refusal) >= 1; }));
    std::filesystem::remove(requester().output());
    EXPECT_EQ(askStatus(), "0 running");
    // Two requests, or one text of both; no answer came back as a third.
    EXPECT_LE(CapturedLog::count(SeverityError, refusal), 2U) << CapturedLog::dump();
}

TEST_F(ServiceChannel, LinkInThePlaceOfTheOutputIsNotFollowed) {
    run();
    const std::string victim = sandbox().write("victim", "keep me");
    std::filesystem::create_symlink(victim, requester().output());
    service().sendResponse(0, "text");
    EXPECT_EQ(Sandbox::read(victim), "keep me");

    // Not to a fifo either, whose reader would learn what is not meant for it.
    std::filesystem::remove(requester().output());
    const std::string fifo = sandbox().path(id + ".elsewhere");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const UniqueFd reader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
    std::filesystem::create_symlink(fifo, requester().output());
    service().sendResponse(0, "text");
    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

TEST_F(ServiceChannel, FolderOrSocketInThePlaceOfTheOutputIsGivenUpAtOnce) {
    run();
    const auto start = Clock::now();
    std::filesystem::create_directory(requester().output());
    service().sendResponse(0, "text");
    std::filesystem::remove(requester().output());
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(requester().output().size(), sizeof address.sun_path);
    requester().output().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    service().sendResponse(0, "text");
    EXPECT_TRUE(isSoon(start));
}

TEST_F(ServiceChannel, AnswerThatDoesNotFitThePipeIsWhole) {
    run();
    const std::string text(1000000, 'x');
    Requester reading(id);
    reading.makeOutput();
    reading.openOutput();
    std::thread answering([&] { service().sendResponse(0, text); });
    std::this_thread::sleep_for(Milliseconds(50));
    EXPECT_EQ(reading.receive(), "0 " + text);
    answering.join();
    reading.leave();
}

TEST_F(ServiceChannel, ReaderThatLeavesInTheMiddleIsLogged) {
    run();
    const std::string text(1000000, 'x');
    Requester reading(id);
    reading.makeOutput();
    reading.openOutput();
    std::thread answering([&] { service().sendResponse(3, text); });
    {
        const UniqueFd pipe(::open(reading.output().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(becomes([&pipe] {
            int unread = 0;
            return ::ioctl(pipe.get(), FIONREAD, &unread) == 0 && unread > 0;
        }));
    }
    reading.leave();
    answering.join();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Error during communication of: 3 " + text));
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(ServiceChannel, ReaderThatStopsReadingIsGivenUp) {
    run();
    const std::string text(1000000, 'x');
    Requester reading(id);
    reading.makeOutput();
    reading.openOutput();
    std::thread answering([&] { service().sendResponse(0, text); });
    std::this_thread::sleep_for(Milliseconds(50));
    TestClock::passMonotonic(31000);
    answering.join();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Error during communication of: 0 " + text));
    reading.leave();
}

TEST_F(ServiceChannel, RegularFileInThePlaceOfTheInputIsNoEnd) {
    run();
    {
        const UniqueFd last(::open(requester().input().c_str(), O_WRONLY | O_CLOEXEC));
        std::filesystem::remove(requester().input());
        sandbox().write("pipes/" + id + "/" + id + ".in", "no request");
    }
    ASSERT_TRUE(becomes([this] { return typeOf(requester().input()) == S_IFIFO; }));
    EXPECT_EQ(askStatus(), "0 running");
    EXPECT_EQ(rightsOf(requester().input()), "0720 kwmanage");
}

TEST_F(ServiceChannel, InputThatIsLostIsSaidAndDoesNotHoldUpTheEnd) {
    run();
    UniqueFd last(::open(requester().input().c_str(), O_WRONLY | O_CLOEXEC));
    auto blocked = std::make_unique<Blocked>(requester().input());
    last.reset();
    EXPECT_TRUE(becomes([this] {
        return CapturedLog::contains(SeverityError,
                                     "Error during opening file: " + requester().input() +
                                         ". Hence, exiting the command analyzer for service: " + id);
    }));
    blocked.reset();
    destroy();
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

TEST_F(ServiceChannel, RequestWaitsForTheServiceAndItsStopDoesNot) {
    configure("server yes\nselfSignedGeneration yes");
    run();
    hold("server");  // what the owner hears of a new certificate
    std::thread renewing([this] {
        TestClock::set(kNow + INT64_C(400) * 86400);
        service().timeChanged();
    });
    ASSERT_TRUE(isHeld("server"));
    Requester waiting(id);
    waiting.makeOutput();
    waiting.openOutput();
    ASSERT_TRUE(waiting.send(request("config", "status")));
    EXPECT_EQ(waiting.receive(Milliseconds(150)), "no answer");
    const auto start = Clock::now();
    service().stopHandler();
    EXPECT_TRUE(isSoon(start));
    EXPECT_EQ(waiting.receive(), "7 The daemon just terminate");
    release("server");
    renewing.join();
}

TEST_F(ServiceChannel, StopWaitsOneSecondForARequesterThatDoesNotRead) {
    run();
    requester().makeOutput();
    const auto start = Clock::now();
    service().stopHandler();
    EXPECT_GE(Clock::now() - start, Milliseconds(990));
    EXPECT_LT(Clock::now() - start, Milliseconds(2500));
}

TEST_F(ServiceChannel, StopOfTheDaemonCutsAWaitingAnswerShort) {
    const std::string report = inChild([this] {
        run();
        requester().makeOutput();
        std::thread stopper([] {
            std::this_thread::sleep_for(Milliseconds(300));
            StopRequest::raise();
        });
        const auto start = Clock::now();
        service().sendResponse(0, "text");
        const auto spent = Clock::now() - start;
        stopper.join();
        const auto second = Clock::now();
        service().sendResponse(0, "text");
        const bool soon = spent < Milliseconds(1900) && Clock::now() - second < Milliseconds(1600);
        return std::string(soon ? "in time" : "late");
    });
    EXPECT_EQ(report, "in time");
}

TEST_F(ServiceChannel, ThreeThousandRequestersInARowAreAllServed) {
    run();
    const std::string line = request("config", "status");
    int good = 0;
    for (int i = 0; i < 3000; ++i)
        good += ask(line) == "0 running" ? 1 : 0;
    EXPECT_EQ(good, 3000);
}

TEST_F(ServiceChannel, RequestersThatTakeTurnsByTheLockAreAllServed) {
    run();
    std::atomic<int> good{0};
    std::vector<std::thread> requesters;
    requesters.reserve(4);
    for (int thread = 0; thread < 4; ++thread)
        requesters.emplace_back([this, thread, &good] {
            for (int i = 0; i < 60; ++i) {
                Requester mine(id);
                const UniqueFd lock(::open(mine.lock().c_str(), O_WRONLY | O_CLOEXEC));
                ::flock(lock.get(), LOCK_EX);
                good += thread % 2 == 0 ? mine.ask(request("config", "status")) == "0 running"
                                        : mine.ask(request("config", "help")) == "4 Bad Command config";
            }
        });
    for (std::thread& one : requesters)
        one.join();
    EXPECT_EQ(good, 240);
}

TEST_F(ServiceChannel, ThousandStopsAtRandomMoments) {
    start();
    std::atomic<bool> done{false};
    std::thread asking([this, &done] {
        const Requester one(id);
        const std::string line = request("config", "status");
        while (!done) {
            const UniqueFd input(::open(one.input().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            if (input)
                static_cast<void>(!::write(input.get(), line.data(), line.size()));
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    std::mt19937 random(99);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same moments in every run
    std::uniform_int_distribution<int> pause(0, 400);
    const auto start = Clock::now();
    for (int i = 0; i < 1000; ++i) {
        service().startHandler();
        std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
        service().stopHandler();
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    done = true;
    asking.join();
    EXPECT_TRUE(CapturedLog::contains(SeverityWarning, left())) << "no request was ever taken";
    service().startHandler();
    EXPECT_EQ(askStatus(), "0 running");
}

}  // namespace servicetest
