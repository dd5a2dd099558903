#include "cnf/CnfHookConfiguration.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/unit/cnf/CnfFixture.h"
#include "tests/unit/cnf/FailingSpawn.h"

namespace {

using keywarden::CnfHookConfiguration;
using testsupport::tracesOf;

class CnfHook : public CnfFixture {
  protected:
    static std::string failureOf(const std::string& hook) {
        try {
            const CnfHookConfiguration configuration(hook, "svc", false);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no failure";
    }
};

TEST_F(CnfHook, WhatTheHookPrintsBecomesTheSettings) {
    const CnfHookConfiguration configuration(script("echo CN host; echo C FR; echo default_bits 1024"), "svc",
                                             false);
    const kwdata::CCertificateData data = configuration.getCCertificateData();
    EXPECT_EQ(data.subject.common_name, "host");
    EXPECT_EQ(data.subject.country, "FR");
    EXPECT_EQ(data.public_key_size_bits, 1024);
}

TEST_F(CnfHook, ForASelfSignedCertificateItIsToldSo) {
    const CnfHookConfiguration configuration(script(writesArguments()), "svc", true);
    EXPECT_EQ(seenArguments(), "[svc]\n[selfsign]\n");
}

TEST_F(CnfHook, ForARequestItIsGivenTheServiceOnly) {
    const CnfHookConfiguration configuration(script(writesArguments()), "svc", false);
    EXPECT_EQ(seenArguments(), "[svc]\n");
}

TEST_F(CnfHook, ItsStandardInputIsEmpty) {
    const CnfHookConfiguration configuration(script("echo CN \"got($(cat))\""), "svc", false);
    EXPECT_EQ(configuration.getCN(), "got()");
}

TEST_F(CnfHook, AFailingHookThatPrintsNothingGivesEmptySettings) {
    const CnfHookConfiguration configuration(script("exit 3"), "svc", false);
    EXPECT_EQ(configuration.getCN(), "");
    EXPECT_EQ(configuration.getCCertificateData().public_key_size_bits, 2048);
    expectLog({});
}

TEST_F(CnfHook, TheExitStatusDoesNotCount) {
    const CnfHookConfiguration configuration(script("echo CN host; exit 1"), "svc", false);
    EXPECT_EQ(configuration.getCN(), "host");
}

TEST_F(CnfHook, ACommonNameScriptIsNotRun) {
    const CnfHookConfiguration configuration(script("echo commonNameScript /bin/hostname"), "svc", false);
    EXPECT_EQ(configuration.getCN(), "");
}

TEST_F(CnfHook, ItIsTracedForASelfSignedCertificate) {
    const std::string hook = script("echo note >&2; echo CN host");
    EXPECT_EQ(tracesOf([&] { const CnfHookConfiguration configuration(hook, "svc", true); }),
              "Cnf hook configuration: Executing '" + hook +
                  " for svc selfsign ...'\n"
                  "note\n\n"
                  "Contents of the configuration:\n"
                  "\t'CN' : 'host'\n");
}

TEST_F(CnfHook, ItIsTracedForARequestWithoutABlank) {
    const std::string hook = script("true");
    EXPECT_EQ(
        tracesOf([&] { const CnfHookConfiguration configuration(hook, "svc", false); }),
        "Cnf hook configuration: Executing '" + hook + " for svc...'\n\nContents of the configuration:\n");
}

TEST_F(CnfHook, AMissingHookFails) {
    EXPECT_EQ(failureOf("/nonexistent/hook"),
              "Failed to execute configuration hook - /nonexistent/hook: Cannot run /nonexistent/hook: No "
              "such file "
              "or directory");
}

TEST_F(CnfHook, SettingsThatAreCutOffAreNotUsed) {
    const std::string hook = script("echo CN host; head -c 2000000 /dev/zero | tr '\\0' x");
    EXPECT_EQ(failureOf(hook), "Failed to execute configuration hook - " + hook + ": " + hook +
                                   " printed more than 1048576 bytes");
}

TEST_F(CnfHook, AnythingElseThatIsThrownFailsWithThePathOnly) {
    const std::string hook = script("true");
    const FailingSpawn failing;
    EXPECT_EQ(failureOf(hook), "Failed to execute configuration hook - " + hook);
}

}  // namespace
