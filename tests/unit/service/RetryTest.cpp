#include "service/Retry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ServiceFixture.h"

namespace servicetest {

using keywarden::Retry;
using keywarden::SeverityError;
using testsupport::CapturedLog;
using Clock = std::chrono::steady_clock;

class Retrying : public testing::Test {
  protected:
    void SetUp() override { CapturedLog::clear(); }

    /// Fails so many times first.
    bool tried(int failures, Retry::Attempts attempts) {
        const auto attempt = [this, failures] { return ++made > failures; };
        return retry.succeeds(attempt, attempts, "No thread");
    }
    static testsupport::LogLine again(int milliseconds) {
        return {SeverityError, "No thread. It is tried again in " + std::to_string(milliseconds) + " ms."};
    }

    Retry retry;
    std::atomic<int> made{0};
};

TEST_F(Retrying, SuccessAtOnceSaysNothing) {
    EXPECT_TRUE(tried(0, Retry::Attempts::One));
    EXPECT_EQ(made, 1);
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(Retrying, OneAttemptIsNotRepeated) {
    EXPECT_FALSE(tried(1, Retry::Attempts::One));
    EXPECT_EQ(made, 1);
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(Retrying, FewAttemptsTakeASecondOrTwo) {
    const auto begin = Clock::now();
    EXPECT_FALSE(tried(100, Retry::Attempts::Few));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(1500));
    EXPECT_EQ(made, 5);
    EXPECT_EQ(CapturedLog::lines(), (Lines{again(100), again(200), again(400), again(800)}));
}

TEST_F(Retrying, LastOfFewAttemptsCounts) {
    EXPECT_TRUE(tried(4, Retry::Attempts::Few));
    EXPECT_EQ(made, 5);
}

TEST_F(Retrying, EndCutsTheWaitOfEndlessAttemptsShort) {
    std::atomic<bool> result{true};
    std::thread trying([&] { result = tried(1000000, Retry::Attempts::Endless); });
    // The next pause is of more than three seconds by then.
    EXPECT_TRUE(becomes([this] { return made >= 6; }));
    const auto begin = Clock::now();
    retry.end();
    trying.join();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
    EXPECT_FALSE(result);
    EXPECT_EQ(made, 6);
}

TEST_F(Retrying, AfterTheEndNothingIsRepeated) {
    retry.end();
    EXPECT_FALSE(tried(1, Retry::Attempts::Endless));
    EXPECT_EQ(made, 1);
    EXPECT_TRUE(tried(0, Retry::Attempts::Endless));
}

}  // namespace servicetest
