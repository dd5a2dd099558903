// A device without memory or descriptors for a moment: no thread ends by it, and requesters are answered.
#include <fcntl.h>

#include <cerrno>
#include <thread>

#include "Scarcity.h"
#include "ServiceFixture.h"
#include "testsupport/TestClock.h"

namespace servicetest {

using keywarden::SeverityError;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::TestClock;

class MemoryRunsOut : public ServiceTest {
  protected:
    void runWith(const std::string& lines) {
        configure(lines);
        run();
        CapturedLog::clear();
    }
    [[nodiscard]] std::string askStatus() { return ask(request("config", "status")); }
    [[nodiscard]] static bool isSaid(const std::string& what) {
        return CapturedLog::contains(SeverityError, what + " failed: std::bad_alloc");
    }
};

TEST_F(MemoryRunsOut, RequestThatCannotBeHandledIsAnsweredAndTheNextOneIsServed) {
    runWith("server yes\nselfSignedGeneration yes");
    // Where it is said that a request cannot be parsed.
    CapturedLog::failFor("std::exception caught while creating command structure");
    EXPECT_EQ(ask("nonsense"), "1 Out of memory");
    EXPECT_TRUE(isSaid("Handling a request")) << CapturedLog::dump();
    EXPECT_EQ(ask("nonsense").substr(0, 2), "4 ");
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(MemoryRunsOut, AnswerThatCannotBeWrittenIsTriedAgain) {
    runWith("");
    // The requester that has left: what is said of it is a part of answering.
    CapturedLog::failFor("'" + Requester(id).output() + "' file not found.", 2);
    ASSERT_TRUE(Requester(id).send(request("config", "status")));
    EXPECT_TRUE(
        becomes([this] { return CapturedLog::containsPart(Requester(id).output() + "' file not found."); }));
    EXPECT_EQ(CapturedLog::count(SeverityError, "Answering a request failed: std::bad_alloc"), 2U);
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(MemoryRunsOut, ReaderThatCannotBeginBeginsAMomentLater) {
    configure("");
    start();
    CapturedLog::clear();
    CapturedLog::failFor("Entering the command line analyzer");
    service().startHandler();
    EXPECT_EQ(askStatus(), "0 running");
    EXPECT_TRUE(isSaid("Reading requests")) << CapturedLog::dump();
}

TEST_F(MemoryRunsOut, DailyCheckThatCannotEvenSayItsFailureIsNoEnd) {
    configureThrowingOwner("server yes\nselfSignedGeneration yes");
    run();
    ownerThrows("updateValidity", "standard", "nobody listens");
    TestClock::set(1718495999);  // 2024-06-15 23:59:59
    service().stopTimer();
    CapturedLog::clear();
    CapturedLog::failFor("Daemon exception during timer thread execution");
    service().startTimer();
    EXPECT_TRUE(becomes([] { return isSaid("The daily check of a service"); })) << CapturedLog::dump();
    ownerThrowsNothing();
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(MemoryRunsOut, ReloadThatCannotSayItsFailureIsAnswered) {
    runWith("server yes\nselfSignedGeneration yes");
    configure("server yes\ncallbackScript /nowhere/owner.sh");
    CapturedLog::failFor("Daemon exception during reload request");
    EXPECT_EQ(ask(request("config", "reload")), "1 Out of memory");
    EXPECT_TRUE(isSaid("A reload")) << CapturedLog::dump();
    // The channel comes back by itself.
    EXPECT_EQ(askStatus(), "0 stoped");
}

TEST_F(MemoryRunsOut, AnswerWaitsForADescriptorOrMemory) {
    runWith("");
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        const Scarcity scarcity(Scarcity::Of::Open, error, 10);
        EXPECT_EQ(askStatus(), "0 running") << error;
        EXPECT_EQ(Scarcity::attempts(), 10);
    }
}

TEST_F(MemoryRunsOut, AnswersFifoIsKeptOpenUntilItCanBeLookedAt) {
    runWith("");
    const Scarcity scarcity(Scarcity::Of::Look, ENOMEM, 5);
    // The closing of the fifo would be an empty answer.
    EXPECT_EQ(askStatus(), "0 running");
    EXPECT_EQ(Scarcity::attempts(), 5);
}

TEST_F(MemoryRunsOut, AnswerThatWaitedForADescriptorIsNotTheNextRequesters) {
    runWith("");
    Requester(id).makeOutput();
    const Scarcity scarcity(Scarcity::Of::Open, EMFILE, 5);
    std::thread answering([this] { service().sendResponse(0, "not for you"); });
    ASSERT_TRUE(becomes([] { return Scarcity::attempts() > 0; }));
    Requester next(id);
    next.makeOutput();
    next.openOutput();
    EXPECT_EQ(next.receive(std::chrono::milliseconds(300)), "no answer");
    answering.join();
    next.leave();
}

TEST_F(MemoryRunsOut, AnswerIsGivenUpWithItsPatience) {
    runWith("");
    const Scarcity scarcity(Scarcity::Of::Open, EMFILE, 1000000);
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    ASSERT_TRUE(requester.send(request("config", "status")));
    ASSERT_TRUE(becomes([] { return Scarcity::attempts() > 3; }));
    TestClock::passMonotonic(30000);
    const auto isStill = [] {
        const int before = Scarcity::attempts();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return Scarcity::attempts() == before;
    };
    EXPECT_TRUE(becomes(isStill));
    requester.leave();
}

using PipesInTheWay = MemoryRunsOut;

TEST_F(PipesInTheWay, AreMadeLaterByTheReader) {
    for (const std::string& path : {Requester(id).input(), Requester(id).lock()}) {
        configure("");
        start();
        auto blocked = std::make_unique<Blocked>(path);
        EXPECT_THROW(service().startHandler(), keywarden::PipesNotMade);
        service().startHandlerLater();
        ASSERT_TRUE(becomes([] {
            return !linesStarting({"Making the pipe files of a service failed: "}).empty();
        })) << CapturedLog::dump();
        blocked.reset();
        EXPECT_TRUE(becomes([this] { return rightsOf(Requester(id).lock()) == "0760 kwmanage"; }));
        EXPECT_EQ(askStatus(), "0 running");
        destroy();
        CapturedLog::clear();
    }
}

TEST_F(PipesInTheWay, DoNotHoldUpTheEnd) {
    configure("");
    start();
    const Blocked blocked(Requester(id).input());
    service().startHandlerLater();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto begin = std::chrono::steady_clock::now();
    destroy();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

}  // namespace servicetest
