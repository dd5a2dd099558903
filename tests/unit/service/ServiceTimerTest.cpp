// The daily check.
#include <random>
#include <thread>

#include "ServiceFixture.h"
#include "testsupport/TestClock.h"

namespace servicetest {

using keywarden::Service;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testsupport::CapturedLog;
using testsupport::TestClock;

namespace {

constexpr std::int64_t kMidnight = 1718409600;  // 2024-06-15 00:00:00 UTC

constexpr std::int64_t at(int hour, int minute, int second) {
    return kMidnight + hour * INT64_C(3600) + minute * INT64_C(60) + second;
}

}  // namespace

TEST(DailyCheck, IsAtMidnightWithoutAnOffset) {
    EXPECT_EQ(Service::secondsUntilCheck(at(23, 59, 30), 0), 30);
    EXPECT_EQ(Service::secondsUntilCheck(at(23, 59, 59), 0), 1);
    EXPECT_EQ(Service::secondsUntilCheck(at(0, 0, 0), 0), 86400);
    EXPECT_EQ(Service::secondsUntilCheck(at(0, 0, 1), 0), 86399);
    EXPECT_EQ(Service::secondsUntilCheck(0, 0), 86400);
}

TEST(DailyCheck, ComesTheOffsetBeforeMidnight) {
    EXPECT_EQ(Service::secondsUntilCheck(at(0, 0, 0), 3600), 23 * 3600);
    EXPECT_EQ(Service::secondsUntilCheck(at(22, 59, 59), 3600), 1);
    EXPECT_EQ(Service::secondsUntilCheck(at(0, 0, 0), 86399), 1);
}

TEST(DailyCheck, SlotThatHasPassedIsTomorrows) {
    EXPECT_EQ(Service::secondsUntilCheck(at(23, 59, 30), 120), 86310);
    EXPECT_EQ(Service::secondsUntilCheck(at(23, 0, 0), 3600), 86400);
    EXPECT_EQ(Service::secondsUntilCheck(at(23, 0, 1), 3600), 86399);
    EXPECT_EQ(Service::secondsUntilCheck(at(0, 0, 1), 86399), 86400);
    EXPECT_EQ(Service::secondsUntilCheck(at(0, 0, 2), 86399), 86399);
}

TEST(DailyCheck, WorksBeyondTheEndOf32Bits) {
    EXPECT_EQ(Service::secondsUntilCheck(INT64_C(4102444799), 0), 1);  // 2099-12-31 23:59:59
}

class ServiceTimer : public ServiceTest {
  protected:
    [[nodiscard]] std::string line(const std::string& rest) const { return "The service " + id + " " + rest; }
};

TEST_F(ServiceTimer, StartsAndStopsWithItsLines) {
    configure("server yes");
    start();
    CapturedLog::clear();
    service().startTimer();
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityInfo, line("is starting his timer...")},
                                           {SeverityInfo, line("started his timer.")}}));
    CapturedLog::clear();
    service().startTimer();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityInfo, line("is starting his timer...")},
                     {SeverityInfo, line("is starting his timer... already running.")}}));
    CapturedLog::clear();
    service().stopTimer();
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityInfo, line("is stopping its timer...")},
                                           {SeverityInfo, line("stopped its timer.")}}));
    CapturedLog::clear();
    service().stopTimer();
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityInfo, line("is stopping its timer...")}}));
}

TEST_F(ServiceTimer, IsInitialisedOnlyWithAServer) {
    configure("ca yes");
    start();
    CapturedLog::clear();
    service().initTimer();
    EXPECT_EQ(CapturedLog::lines(), Lines{});
    configure("server yes");
    start();
    CapturedLog::clear();
    service().initTimer();
    EXPECT_EQ(CapturedLog::lines().size(), 2U);
}

TEST_F(ServiceTimer, ChecksWhenTheTimeHasComeAndGoesOn) {
    configure("server yes\nselfSignedGeneration yes");
    start();
    TestClock::set(at(23, 59, 59));
    CapturedLog::clear();
    service().initTimer();
    const std::string checked = "Days before validity of server certificate for service '" + id + "' : ";
    EXPECT_TRUE(becomes([&] { return linesStarting({checked}).size() >= 2; })) << CapturedLog::dump();
}

TEST_F(ServiceTimer, DoesNotCheckBeforeTheTimeHasCome) {
    configure("server yes\nselfSignedGeneration yes\nCertDailyExpiryChkTimeOffsetSecs 120");
    start();
    TestClock::set(at(23, 59, 59));
    CapturedLog::clear();
    service().initTimer();
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    EXPECT_EQ(CapturedLog::lines().size(), 2U) << CapturedLog::dump();
}

TEST_F(ServiceTimer, FailureIsLoggedAndTheTimerGoesOn) {
    configureThrowingOwner("server yes\nselfSignedGeneration yes");
    start();
    TestClock::set(at(23, 59, 59));
    const std::string failed = "Daemon exception during timer thread execution for service '" + id + "'";
    ownerThrows("updateValidity", "standard", "nobody listens");
    service().initTimer();
    EXPECT_TRUE(becomes([&] { return CapturedLog::contains(SeverityError, failed + "nobody listens"); }))
        << CapturedLog::dump();
    ownerThrows("updateValidity", "runtime", "");
    EXPECT_TRUE(becomes([&] { return CapturedLog::contains(SeverityError, failed + "Unknown"); }));
    CapturedLog::clear();
    ownerThrows("updateValidity", "odd");
    EXPECT_TRUE(becomes([&] { return CapturedLog::contains(SeverityError, failed + "Unknown"); }));
}

TEST_F(ServiceTimer, ThousandStopsAtRandomMoments) {
    configure("server yes");
    start();
    // The check is always due in a second, so that some stops meet a check.
    TestClock::set(at(23, 59, 59));
    std::mt19937 random(2024);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same moments in every run
    std::uniform_int_distribution<int> pause(0, 500);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        service().startTimer();
        if (i % 4 != 0)
            std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
        service().stopTimer();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(CapturedLog::count(SeverityInfo, line("stopped its timer.")), 1000U);
}

TEST_F(ServiceTimer, MayBeStoppedByWhoeverHoldsTheService) {
    configure("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    start();
    // The check is due all the time.
    TestClock::set(at(23, 59, 59));
    service().initTimer();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 12; ++i) {
        setNetwork("fqdn.0 unit" + std::to_string(i) + ".example\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(i * 20));
        service().networkChanged();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(CapturedLog::count(SeverityNotice, "Create and Apply SelfSigned certificate for service '" +
                                                     id + "' as the network changed."),
              12U);
}

}  // namespace servicetest
