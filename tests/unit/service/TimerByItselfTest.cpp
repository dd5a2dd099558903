// The timer without a service: whose check it does, and whom it waits for.
#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <thread>

#include "ServiceFixture.h"
#include "ThreadShortage.h"
#include "config/ServiceConfiguration.h"
#include "service/ServiceTimer.h"
#include "testsupport/TestClock.h"

namespace servicetest {

using keywarden::Retry;
using keywarden::ServiceConfiguration;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using testsupport::CapturedLog;
using testsupport::TestClock;
using Attempts = Retry::Attempts;

class TimerByItself : public ServiceTest {
  protected:
    void make(const std::string& lines) {
        configure(lines);
        configuration_.emplace(id);
        timer.emplace(*configuration_, serviceMutex, retry_, [this] { check(); });
        // From now on a check is due in a second.
        TestClock::set(1718495999);  // 2024-06-15 23:59:59
        CapturedLog::clear();
    }
    [[nodiscard]] std::string line(const std::string& rest) const { return "The service " + id + " " + rest; }

    std::mutex serviceMutex;
    std::atomic<int> checks{0};
    std::atomic<int> checksWithoutTheService{0};
    std::atomic<bool> fails{false};

  private:
    // In a thread of its own: the timer's holds the mutex.
    void check() {
        ++checks;
        if (serviceMutex.try_lock()) {
            ++checksWithoutTheService;
            serviceMutex.unlock();
        }
        if (fails)
            throw std::runtime_error("nothing to check");
    }

    Retry retry_;
    std::optional<ServiceConfiguration> configuration_;

  protected:
    std::optional<keywarden::ServiceTimer> timer;
};

TEST_F(TimerByItself, ChecksAgainAndAgainWithTheServiceHeld) {
    make("server yes");
    timer->start(Attempts::One);
    EXPECT_TRUE(becomes([this] { return checks >= 2; }));
    timer->end();
    EXPECT_EQ(checksWithoutTheService, 0);
}

TEST_F(TimerByItself, FailureOfACheckIsLoggedAndTheTimerGoesOn) {
    make("server yes");
    fails = true;
    timer->start(Attempts::One);
    EXPECT_TRUE(becomes([this] { return checks >= 2; }));
    timer->end();
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "The daily check of a service failed: nothing to check"))
        << CapturedLog::dump();
}

TEST_F(TimerByItself, StoppedItDoesNotCheck) {
    make("server yes");
    timer->start(Attempts::One);
    timer->stop();
    EXPECT_EQ(checks, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    EXPECT_EQ(checks, 0);
    timer->start(Attempts::One);
    EXPECT_TRUE(becomes([this] { return checks > 0; }));
}

TEST_F(TimerByItself, ServiceWithoutAServerHasNone) {
    make("ca yes");
    const ThreadShortage shortage;
    timer->init(Attempts::One);
    EXPECT_EQ(ThreadShortage::attempts(), 0);
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(TimerByItself, ParkedItKeepsItsThreadAndEndedItDoesNot) {
    make("server yes");
    timer->start(Attempts::One);
    CapturedLog::clear();
    const ThreadShortage shortage;
    timer->park();
    EXPECT_EQ(CapturedLog::lines(), Lines{});
    timer->start(Attempts::One);
    timer->end();
    EXPECT_EQ(failureOf([this] { timer->start(Attempts::One); }),
              "Impossible to start the timer for the service " + id);
}

TEST_F(TimerByItself, RestartWithoutAThreadIsOnlyLogged) {
    make("server yes");
    const ThreadShortage shortage;
    timer->restart();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityInfo, line("is stopping its timer...")},
                     {SeverityInfo, line("is starting his timer...")},
                     {SeverityError, "Impossible to start the timer for the service " + id}}));
}

TEST_F(TimerByItself, GivesUpWaitingForTheServiceWhenItsHolderStopsIt) {
    make("server yes");
    const std::lock_guard<std::mutex> guard(serviceMutex);
    timer->start(Attempts::One);
    // The check is due by then.
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    const auto begin = std::chrono::steady_clock::now();
    timer->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(checks, 0);
}

}  // namespace servicetest
