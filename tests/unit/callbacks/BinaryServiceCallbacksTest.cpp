#include "callbacks/BinaryServiceCallbacks.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <limits>
#include <memory>
#include <stdexcept>

#include "callbacks/Delivery.h"
#include "support/StopRequest.h"
#include "tests/unit/callbacks/FailingStart.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"
#include "testsupport/SilentCallbacks.h"
#include "testsupport/Traces.h"

namespace {

using keywarden::BinaryServiceCallbacks;
using keywarden::SeverityError;
using keywarden::SeverityWarning;
using keywarden::wasDelivered;
using testsupport::CapturedLog;
using testsupport::Sandbox;
using testsupport::tracesOf;

std::string failureOf(const std::string& script) {
    try {
        const BinaryServiceCallbacks callbacks("web", script);
        return "no exception";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

/// A script that writes each run as one line, every argument in brackets.
class BinaryCallbacks : public testing::Test {
  protected:
    BinaryCallbacks() { CapturedLog::clear(); }

    [[nodiscard]] std::string record() const { return sandbox_.path("record"); }
    [[nodiscard]] std::string recorded() const {
        return Sandbox::exists(record()) ? Sandbox::read(record()) : std::string();
    }

    Sandbox sandbox_;
    std::string script_ = sandbox_.write(
        "owner.sh", "#!/bin/sh\n{ printf '[%s]' \"$@\"; echo; } >> '" + record() + "'\n", 0755);
    BinaryServiceCallbacks callbacks_{"web", script_};
};

TEST(BinaryServiceCallbacks, MissingScriptFails) {
    EXPECT_EQ(failureOf("/nowhere/owner.sh"),
              "The callback /nowhere/owner.sh for the service web doesn't exist");
}

TEST(BinaryServiceCallbacks, ScriptWithoutExecuteBitFails) {
    const Sandbox sandbox;
    const std::string script = sandbox.write("owner.sh", "#!/bin/sh\n", 0644);
    EXPECT_EQ(failureOf(script),
              "The callback " + script + " for the service web doesn't have executable right.");
}

TEST_F(BinaryCallbacks, EachEventRunsTheScriptOnceWithItsArguments) {
    callbacks_.started();
    callbacks_.stopped();
    callbacks_.allStarted();
    callbacks_.newGeneratedCertificate("3a5f09c1.0");
    callbacks_.newExternalCertificate("ca", "0a1b2c3d.1");
    callbacks_.revokedExternalCertificate("client", std::string("0a1b2c3d.2"));
    EXPECT_EQ(recorded(),
              "[web][start]\n"
              "[web][stop]\n"
              "[web][allStarted]\n"
              "[web][server][new][3a5f09c1.0]\n"
              "[web][ca][new][0a1b2c3d.1]\n"
              "[web][client][revoke][0a1b2c3d.2]\n");
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(BinaryCallbacks, ArgumentsReachTheScriptAsTheyAre) {
    callbacks_.newExternalCertificate("ca", "a b'$(id)\"*");
    EXPECT_EQ(recorded(), "[web][ca][new][a b'$(id)\"*]\n");
}

TEST_F(BinaryCallbacks, CertificateThatIsNotYetValidIsReportedWithTheDaysUntilItIs) {
    callbacks_.updateValidityGeneratedCertificate(120, 5000);
    EXPECT_EQ(recorded(), "[web][server][validIn][120]\n");
}

TEST_F(BinaryCallbacks, ValidCertificateIsReportedWithTheDaysItHasLeft) {
    callbacks_.updateValidityGeneratedCertificate(0, 3600);
    callbacks_.updateValidityGeneratedCertificate(-10, 19);
    EXPECT_EQ(recorded(), "[web][server][expireIn][3600]\n[web][server][expireIn][19]\n");
}

TEST_F(BinaryCallbacks, ExpiredCertificateIsReportedWithTheDaysSince) {
    callbacks_.updateValidityGeneratedCertificate(0, -30);
    EXPECT_EQ(recorded(), "[web][server][expireFrom][30]\n");
}

TEST_F(BinaryCallbacks, CertificateThatExpiresTodayIsReportedAsExpiredForZeroDays) {
    callbacks_.updateValidityGeneratedCertificate(0, 0);
    EXPECT_EQ(recorded(), "[web][server][expireFrom][0]\n");
}

TEST_F(BinaryCallbacks, LongestExpiryHasNoMinusSign) {
    callbacks_.updateValidityGeneratedCertificate(0, std::numeric_limits<int>::min());
    EXPECT_EQ(recorded(), "[web][server][expireFrom][2147483648]\n");
}

TEST_F(BinaryCallbacks, EmptyListOfRevokedIdsRunsNothing) {
    callbacks_.revokedExternalCertificate("client", std::vector<std::string>());
    EXPECT_EQ(recorded(), "");
}

TEST_F(BinaryCallbacks, ThreeRevokedIdsAreOneRunInListOrder) {
    const std::vector<std::string> ids{"00000003.0", "00000001.0", "00000002.0"};
    callbacks_.revokedExternalCertificate("client", ids);
    EXPECT_EQ(recorded(), "[web][client][revoke][00000003.0][00000001.0][00000002.0]\n");
}

TEST_F(BinaryCallbacks, OutputAndThenErrorsAreTraced) {
    sandbox_.write("owner.sh", "#!/bin/sh\necho \"bad $2\" >&2\necho \"told $2\"\n", 0755);
    EXPECT_EQ(tracesOf([this] { callbacks_.started(); }), "told start\n\nbad start\n\n");
    EXPECT_EQ(tracesOf([this] { callbacks_.newGeneratedCertificate("3a5f09c1.0"); }),
              "told server\n\nbad server\n\n");
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(BinaryCallbacks, OutputOfAllStartedIsNotTraced) {
    sandbox_.write("owner.sh", "#!/bin/sh\necho told\necho bad >&2\n", 0755);
    EXPECT_EQ(tracesOf([this] { callbacks_.allStarted(); }), "");
}

TEST_F(BinaryCallbacks, ScriptThatExitsWithAStatusIsAWarning) {
    sandbox_.write("owner.sh", "#!/bin/sh\nexit 3\n", 0755);
    callbacks_.newExternalCertificate("ca", "0a1b2c3d.0");
    EXPECT_EQ(CapturedLog::lines(),
              (std::vector<testsupport::LogLine>{
                  {SeverityWarning, "The callback " + script_ +
                                        " for the service web failed for the event 'ca new 0a1b2c3d.0': "
                                        "exit status 3"}}));
}

TEST_F(BinaryCallbacks, ScriptThatIsKilledIsAWarning) {
    sandbox_.write("owner.sh", "#!/bin/sh\nkill -9 $$\n", 0755);
    callbacks_.started();
    EXPECT_EQ(CapturedLog::lines(),
              (std::vector<testsupport::LogLine>{
                  {SeverityWarning, "The callback " + script_ +
                                        " for the service web failed for the event 'start': signal 9"}}));
}

TEST_F(BinaryCallbacks, ScriptThatWentAwayIsAnErrorAndNoException) {
    ASSERT_EQ(::unlink(script_.c_str()), 0);
    EXPECT_NO_THROW(callbacks_.stopped());
    EXPECT_EQ(
        CapturedLog::lines(),
        (std::vector<testsupport::LogLine>{
            {SeverityError, "The callback " + script_ + " for the service web could not be run: Cannot run " +
                                script_ + ": No such file or directory"}}));
}

TEST_F(BinaryCallbacks, ScriptThatExceedsItsTimeIsEndedWithItsChildrenAndAnError) {
    sandbox_.write("owner.sh", "#!/bin/sh\nsleep 300 &\necho $! > '" + record() + "'\nsleep 300\n", 0755);
    BinaryServiceCallbacks limited("web", script_, 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NO_THROW(limited.newGeneratedCertificate("3a5f09c1.0"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(999));
    EXPECT_EQ(CapturedLog::lines(),
              (std::vector<testsupport::LogLine>{
                  {SeverityError,
                   "The callback " + script_ +
                       " for the service web failed for the event 'server new 3a5f09c1.0': it did not "
                       "end within 1 seconds and was killed"}}));
    // A killed process whose new parent has not looked after it yet is no living one.
    const std::string state = "/proc/" + std::to_string(std::stoi(recorded())) + "/stat";
    for (int i = 0;
         i < 1000 && Sandbox::exists(state) && Sandbox::read(state).find(") Z ") == std::string::npos; ++i)
        ::usleep(5000);
    EXPECT_TRUE(!Sandbox::exists(state) || Sandbox::read(state).find(") Z ") != std::string::npos);
}

TEST_F(BinaryCallbacks, ScriptWithinItsTimeIsNoTrouble) {
    BinaryServiceCallbacks limited("web", script_, 86400);
    limited.started();
    EXPECT_EQ(recorded(), "[web][start]\n");
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(BinaryCallbacks, EventWaitsForTheScriptToEnd) {
    sandbox_.write("owner.sh", "#!/bin/sh\nsleep 0.3\necho done > '" + record() + "'\n", 0755);
    callbacks_.started();
    EXPECT_EQ(recorded(), "done\n");
}

TEST_F(BinaryCallbacks, EventIsDeliveredWhateverTheScriptMadeOfIt) {
    EXPECT_TRUE(wasDelivered(callbacks_));
    sandbox_.write("owner.sh", "#!/bin/sh\nexit 3\n", 0755);
    callbacks_.started();
    EXPECT_TRUE(wasDelivered(callbacks_));
    sandbox_.write("owner.sh", "#!/bin/sh\nkill -9 $$\n", 0755);
    callbacks_.started();
    EXPECT_TRUE(wasDelivered(callbacks_));
    ASSERT_EQ(::unlink(script_.c_str()), 0);
    callbacks_.started();
    EXPECT_TRUE(wasDelivered(callbacks_));
}

TEST_F(BinaryCallbacks, EventOfAScriptThatExceedsItsTimeIsDelivered) {
    sandbox_.write("owner.sh", "#!/bin/sh\nsleep 300\n", 0755);
    BinaryServiceCallbacks limited("web", script_, 1);
    limited.started();
    EXPECT_TRUE(wasDelivered(limited));
}

TEST_F(BinaryCallbacks, EventWithoutAProcessForItIsNotDeliveredUntilTheNextOneIs) {
    EXPECT_EQ(testsupport::inChild([this]() -> std::string {
                  rlimit few{};
                  ::getrlimit(RLIMIT_NOFILE, &few);
                  const rlimit before = few;
                  few.rlim_cur = 3;
                  ::setrlimit(RLIMIT_NOFILE, &few);
                  callbacks_.started();
                  const bool without = wasDelivered(callbacks_);
                  ::setrlimit(RLIMIT_NOFILE, &before);
                  // Of no certificate, and beside whatever else is told.
                  callbacks_.allStarted();
                  const bool still = wasDelivered(callbacks_);
                  callbacks_.stopped();
                  return std::string(without || still ? "delivered" : "not delivered") +
                         (wasDelivered(callbacks_) ? ", delivered" : ", not delivered");
              }),
              "not delivered, delivered");
}

TEST_F(BinaryCallbacks, ScriptForWhichThereIsNoProcessIsStartedAMomentLater) {
    for (const int error : {EAGAIN, ENOMEM, EMFILE, ENFILE}) {
        std::remove(record().c_str());
        const FailingStart failing(error, 3);
        callbacks_.started();
        EXPECT_EQ(recorded(), "[web][start]\n") << error;
        EXPECT_EQ(FailingStart::starts(), 4);
        EXPECT_TRUE(wasDelivered(callbacks_));
        EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
    }
}

TEST_F(BinaryCallbacks, ScriptForWhichThereIsNoProcessForLongIsAnError) {
    const FailingStart failing(EAGAIN, 4);
    callbacks_.started();
    EXPECT_EQ(FailingStart::starts(), 4);
    EXPECT_FALSE(wasDelivered(callbacks_));
    EXPECT_EQ(recorded(), "");
    EXPECT_EQ(
        CapturedLog::lines(),
        (std::vector<testsupport::LogLine>{
            {SeverityError, "The callback " + script_ + " for the service web could not be run: Cannot run " +
                                script_ + ": Resource temporarily unavailable"}}));
}

TEST_F(BinaryCallbacks, ScriptThatCannotRunIsNotTriedAgain) {
    const FailingStart failing(EACCES, 1);
    callbacks_.started();
    EXPECT_EQ(FailingStart::starts(), 1);
    EXPECT_TRUE(wasDelivered(callbacks_));
}

TEST_F(BinaryCallbacks, ScriptForWhichThereIsNoProcessDoesNotHoldUpAStop) {
    EXPECT_EQ(testsupport::inChild([this] {
                  keywarden::StopRequest::raise();
                  const FailingStart failing(EAGAIN, 1);
                  callbacks_.started();
                  return std::to_string(FailingStart::starts()) +
                         (wasDelivered(callbacks_) ? " delivered" : " not delivered");
              }),
              "1 not delivered");
}

TEST_F(BinaryCallbacks, EventThatAStopOfTheDaemonCutsOffIsNotDelivered) {
    sandbox_.write("owner.sh", "#!/bin/sh\nif [ \"$2\" = start ]; then sleep 300; else sleep 0.3; fi\n",
                   0755);
    EXPECT_EQ(testsupport::inChild([this]() -> std::string {
                  keywarden::StopRequest::raise();
                  callbacks_.started();
                  const bool first = wasDelivered(callbacks_);
                  callbacks_.stopped();
                  return std::string(first ? "delivered" : "not delivered") +
                         (wasDelivered(callbacks_) ? ", delivered" : ", not delivered");
              }),
              "not delivered, delivered");
}

TEST(Delivery, OfCallbacksThatDoNotTellIsTaken) {
    EXPECT_TRUE(wasDelivered(testsupport::SilentCallbacks()));
}

}  // namespace
