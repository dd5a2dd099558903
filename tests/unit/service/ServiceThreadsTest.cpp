// A device that has no thread to give, or no fifo: nothing is lost for good.
#include <fcntl.h>

#include <filesystem>

#include "ServiceFixture.h"
#include "ThreadShortage.h"
#include "testsupport/TestClock.h"

namespace servicetest {

using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::Sandbox;
using testsupport::TestClock;

class ThreadsRunOut : public ServiceTest {
  protected:
    void runWith(const std::string& lines) {
        setNetwork("fqdn.0 old.example\n");
        configure(lines);
        run();
        CapturedLog::clear();
    }
    [[nodiscard]] std::string askStatus() { return ask(request("config", "status")); }
    [[nodiscard]] Lines timerLines() const {
        return linesStarting(
            {"The service " + id + " is st", "The service " + id + " st", "Impossible to start"});
    }
    [[nodiscard]] Lines restart() const {
        return {{SeverityInfo, "The service " + id + " is stopping its timer..."},
                {SeverityInfo, "The service " + id + " stopped its timer."},
                {SeverityInfo, "The service " + id + " is starting his timer..."},
                {SeverityInfo, "The service " + id + " started his timer."}};
    }
    /// The timer is told to start once more: it computes the next check anew, which is due in a second.
    void expectDailyCheck() {
        TestClock::set(1718495999);  // 2024-06-15 23:59:59
        service().stopTimer();
        service().startTimer();
        CapturedLog::clear();
        EXPECT_TRUE(becomes([this] {
            return !linesStarting({"Days before validity of server certificate for service '" + id}).empty();
        })) << CapturedLog::dump();
    }
    [[nodiscard]] static testsupport::LogLine triedAgain(const std::string& failure, int milliseconds) {
        return {SeverityError, failure + ". It is tried again in " + std::to_string(milliseconds) + " ms."};
    }
    [[nodiscard]] std::string noTimer() const {
        return "Impossible to start the timer for the service " + id;
    }
    [[nodiscard]] std::string noReader() const { return "Impossible to start the handler for service " + id; }
};

TEST_F(ThreadsRunOut, RenewalsRestartTheTimerAllTheSame) {
    runWith("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    {
        const ThreadShortage shortage;
        setNetwork("fqdn.0 new.example\n");
        EXPECT_EQ(failureOf([this] { service().networkChanged(); }), "no exception");
        EXPECT_EQ(timerLines(), restart());
        CapturedLog::clear();
        EXPECT_EQ(failureOf([this] { service().timeChanged(); }), "no exception");
        EXPECT_EQ(timerLines(), restart());
        CapturedLog::clear();
        EXPECT_EQ(ask(request("server", "revoke")), "0 ");
        EXPECT_EQ(timerLines(), restart());
        EXPECT_LE(ThreadShortage::attempts(), 1) << "that of the request, which is done without";
    }
    expectDailyCheck();
}

TEST_F(ThreadsRunOut, ReloadWaitsForTheReaderAndKeepsTheTimer) {
    runWith("server yes\nselfSignedGeneration yes");
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    hold("start");
    ASSERT_TRUE(requester.send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    const ThreadShortage shortage(3);
    release("start");
    EXPECT_EQ(requester.receive(), "0 Reload Successful");
    requester.leave();
    EXPECT_EQ(linesStarting({"Impossible"}),
              (Lines{triedAgain(noReader(), 100), triedAgain(noReader(), 200), triedAgain(noReader(), 400)}));
    EXPECT_EQ(askStatus(), "0 running");
    expectDailyCheck();
}

TEST_F(ThreadsRunOut, ReloadWaitsForTheFirstTimer) {
    runWith("");
    configure("server yes\nselfSignedGeneration yes");
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    hold("start");
    ASSERT_TRUE(requester.send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    const ThreadShortage shortage(2);
    release("start");
    // The service is there meanwhile, and what comes to it does not suffer.
    ASSERT_TRUE(becomes([] { return ThreadShortage::attempts() > 0; }));
    EXPECT_EQ(failureOf([this] { service().timeChanged(); }), "no exception");
    EXPECT_EQ(requester.receive(), "0 Reload Successful");
    requester.leave();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, triedAgain(noTimer(), 100).text));
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "The service " + id + " started his timer."));
    expectDailyCheck();
}

TEST_F(ThreadsRunOut, ReloadThatWaitsDoesNotHoldUpTheEnd) {
    runWith("server yes");
    hold("start");
    ASSERT_TRUE(Requester(id).send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    const ThreadShortage shortage;
    release("start");
    // By now the pauses are longer than the end may take.
    ASSERT_TRUE(becomes([] { return ThreadShortage::attempts() >= 6; }));
    const auto start = std::chrono::steady_clock::now();
    destroy();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

TEST_F(ThreadsRunOut, ReloadThatCannotBeStartedIsAnsweredAndLosesNothing) {
    runWith("server yes\nselfSignedGeneration yes");
    const std::string failure = "Daemon exception during user request process for service '" + id +
                                "': Impossible to start the reload request thread for the service " + id;
    {
        const ThreadShortage shortage;
        EXPECT_EQ(ask(request("config", "reload")), "1 " + failure);
    }
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, failure}}));
    EXPECT_EQ(askStatus(), "0 running");
    EXPECT_EQ(ask(request("config", "reload")), "0 Reload Successful");
    expectDailyCheck();
}

TEST_F(ThreadsRunOut, StartGivesUpAfterAFewAttempts) {
    configure("server yes");
    start();
    CapturedLog::clear();
    const ThreadShortage shortage;
    EXPECT_EQ(failureOf([this] { service().initTimer(); }), noTimer());
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityInfo, "The service " + id + " is starting his timer..."},
                                           triedAgain(noTimer(), 100),
                                           triedAgain(noTimer(), 200),
                                           triedAgain(noTimer(), 400),
                                           triedAgain(noTimer(), 800)}));
    CapturedLog::clear();
    EXPECT_EQ(failureOf([this] { service().startHandler(); }), noReader());
    EXPECT_EQ(linesStarting({"Impossible"}).size(), 4U);
    CapturedLog::clear();
    EXPECT_EQ(failureOf([this] { service().startTimer(); }), noTimer()) << "one attempt";
    EXPECT_EQ(linesStarting({"Impossible"}), Lines{});
}

TEST_F(ThreadsRunOut, StartThatFindsAThreadInTimeGoesOn) {
    configure("server yes\nselfSignedGeneration yes");
    start();
    {
        const ThreadShortage shortage(2);
        service().initTimer();
    }
    {
        const ThreadShortage shortage(2);
        service().startHandler();
    }
    EXPECT_EQ(askStatus(), "0 running");
    expectDailyCheck();
}

class LostInput : public ThreadsRunOut {
  protected:
    [[nodiscard]] std::string input() const { return Requester(id).input(); }
    [[nodiscard]] std::string lost() const {
        return "Error during opening file: " + input() +
               ". Hence, exiting the command analyzer for service: " + id;
    }
};

TEST_F(LostInput, IsFoundAgainWhenItCanBeMade) {
    runWith("");
    keywarden::UniqueFd last(::open(input().c_str(), O_WRONLY | O_CLOEXEC));
    auto blocked = std::make_unique<Blocked>(input());
    last.reset();
    ASSERT_TRUE(becomes([this] { return CapturedLog::contains(SeverityError, lost()); }));
    blocked.reset();
    EXPECT_TRUE(becomes([this] { return std::filesystem::is_fifo(input()); }));
    EXPECT_EQ(askStatus(), "0 running");
}

TEST_F(LostInput, IsMadeLaterWhereAFailedReloadCouldNot) {
    runWith("server yes");
    hold("start");
    Requester requester(id);
    requester.makeOutput();
    requester.openOutput();
    ASSERT_TRUE(requester.send(request("config", "reload")));
    ASSERT_TRUE(isHeld("start"));
    auto blocked = std::make_unique<Blocked>(input());
    release("start");
    EXPECT_EQ(requester.receive().substr(0, 2), "1 ");
    requester.leave();
    blocked.reset();
    EXPECT_TRUE(becomes([this] { return std::filesystem::is_fifo(input()); }));
    EXPECT_EQ(askStatus(), "0 stoped");
}

TEST_F(ThreadsRunOut, TimeChangeThatFailsLeavesTheTimerRunning) {
    configureThrowingOwner("server yes\nselfSignedGeneration yes");
    run();
    ownerThrows("updateValidity", "standard", "nobody listens");
    CapturedLog::clear();
    EXPECT_EQ(failureOf([this] { service().timeChanged(); }), "exception: nobody listens");
    EXPECT_EQ(timerLines(), restart());
    ownerThrowsNothing();
    service().stopTimer();
    EXPECT_EQ(CapturedLog::count(SeverityInfo, "The service " + id + " stopped its timer."), 2U);
}

}  // namespace servicetest
