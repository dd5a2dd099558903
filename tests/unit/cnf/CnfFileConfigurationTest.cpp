#include "cnf/CnfFileConfiguration.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>

#include "tests/unit/cnf/CnfFixture.h"
#include "tests/unit/cnf/FailingSpawn.h"

namespace {

using keywarden::CnfConfiguration;
using keywarden::CnfFileConfiguration;
using keywarden::SeverityError;
using testsupport::CapturedLog;
using testsupport::tracesOf;

class CnfFile : public CnfFixture {
  protected:
    [[nodiscard]] CnfFileConfiguration read(const std::string& content) const {
        return CnfFileConfiguration(settings(content));
    }
    [[nodiscard]] kwdata::CCertificateData dataOf(const std::string& content) const {
        return read(content).getCCertificateData();
    }
    static std::string failureOf(const std::string& path) {
        try {
            const CnfFileConfiguration configuration(path);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no exception";
    }
    [[nodiscard]] std::string commonNameOf(const std::string& scriptBody) const {
        return read("commonNameScript " + script(scriptBody) + "\n").getCN();
    }
};

const char* const kSettings =
    "# settings of the device's certificate\n"
    "CONFIG_KEY PRIME256V1\n"
    "default_bits 3072\n"
    "default_md sha512\n"
    "C FR\n"
    "ST Isere\n"
    "L  Ville\n"
    "O Firm, Inc.   # trailing comment\n"
    "OU Division\n"
    "CN host.local\n"
    "emailAddress a@b.example\n"
    "subjectKeyIdentifier hash\n"
    "basicConstraints critical,CA:FALSE\n"
    "keyUsage digitalSignature\n"
    "extendedKeyUsage serverAuth\n"
    "subjectAltName DNS:ignored\n";

TEST_F(CnfFile, EverySettingReachesTheRecord) {
    const kwdata::CCertificateData data = dataOf(kSettings);
    EXPECT_EQ(data.subject.country, "FR");
    EXPECT_EQ(data.subject.state, "Isere");
    EXPECT_EQ(data.subject.city, "Ville");
    EXPECT_EQ(data.subject.company, "Firm, Inc.");
    EXPECT_EQ(data.subject.divisions, std::vector<std::string>{"Division"});
    EXPECT_EQ(data.subject.common_name, "host.local");
    EXPECT_EQ(data.subject.email_address, "a@b.example");
    EXPECT_EQ(data.public_key_type, "PRIME256V1");
    EXPECT_EQ(data.public_key_size_bits, 3072);
    EXPECT_EQ(data.signatureAlgorithm_type, "sha512");
}

TEST_F(CnfFile, TheRecordCarriesFourExtensionsInOrderAndNoAlternativeNames) {
    const auto extensions = dataOf(kSettings).v3Extention;
    ASSERT_EQ(extensions.size(), 4U);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"subjectKeyIdentifier", "hash"},
        {"basicConstraints", "critical,CA:FALSE"},
        {"keyUsage", "digitalSignature"},
        {"extendedKeyUsage", "serverAuth"},
    };
    for (std::size_t index = 0; index < expected.size(); ++index) {
        EXPECT_EQ(extensions[index].obj_id, expected[index].first);
        EXPECT_EQ(extensions[index].short_name, expected[index].second);
        EXPECT_EQ(extensions[index].long_name, expected[index].second);
        EXPECT_EQ(extensions[index].comment, "");
    }
}

TEST_F(CnfFile, AnEmptyFileGivesTheDefaultsAndFourEmptyExtensions) {
    const kwdata::CCertificateData data = dataOf("");
    EXPECT_EQ(data.public_key_size_bits, 2048);
    EXPECT_EQ(data.cert_serial, "2");
    EXPECT_EQ(data.validity_days, 365);
    EXPECT_EQ(data.cert_version, 3);
    EXPECT_EQ(data.public_key_type, "");
    EXPECT_EQ(data.signatureAlgorithm_type, "");
    EXPECT_EQ(data.subject.common_name, "");
    ASSERT_EQ(data.v3Extention.size(), 4U);
    EXPECT_EQ(data.v3Extention[3].obj_id, "extendedKeyUsage");
    EXPECT_EQ(data.v3Extention[3].short_name, "");
}

TEST_F(CnfFile, WithoutDivisionTheSubjectHasOneEmptyDivision) {
    EXPECT_EQ(dataOf("CN host\n").subject.divisions, std::vector<std::string>{""});
}

TEST_F(CnfFile, TheFirstOfTwoValuesOfAKeyIsKept) {
    EXPECT_EQ(dataOf("CN first\nCN second\n").subject.common_name, "first");
}

TEST_F(CnfFile, BitsThatAreNoNumberGive0) {
    EXPECT_EQ(dataOf("CN h\ndefault_bits many\n").public_key_size_bits, 0);
}

TEST_F(CnfFile, BitsAreReadUpToTheFirstLetter) {
    EXPECT_EQ(dataOf("CN h\ndefault_bits 4096 bits\n").public_key_size_bits, 4096);
    EXPECT_EQ(dataOf("CN h\ndefault_bits -5\n").public_key_size_bits, -5);
}

TEST_F(CnfFile, AMissingFileFails) {
    const std::string path = sandbox_.path("missing.cnf");
    EXPECT_EQ(failureOf(path), "Failed to read configuration file-" + path);
}

TEST_F(CnfFile, AFolderFails) {
    EXPECT_EQ(failureOf(sandbox_.path()), "Failed to read configuration file-" + sandbox_.path());
}

TEST_F(CnfFile, AFifoFailsWithoutWaitingForAWriter) {
    const std::string path = sandbox_.path("fifo.cnf");
    ASSERT_EQ(::mkfifo(path.c_str(), 0666), 0);
    EXPECT_EQ(failureOf(path), "Failed to read configuration file-" + path);
}

TEST_F(CnfFile, ADeviceWithoutAnEndFails) {
    EXPECT_EQ(failureOf("/dev/zero"), "Failed to read configuration file-/dev/zero");
}

TEST_F(CnfFile, OneMebibyteIsReadAndMoreIsRefused) {
    const std::size_t limit = std::size_t{1024} * 1024;
    const std::string setting = "CN host\n";
    const std::string path = settings(setting + std::string(limit - setting.size(), '#'));
    EXPECT_EQ(CnfFileConfiguration(path).getCN(), "host");
    EXPECT_EQ(failureOf(settings(setting + std::string(limit + 1 - setting.size(), '#'))),
              "Failed to read configuration file-" + path);
}

TEST_F(CnfFile, ReadingIsTraced) {
    const std::string path = settings("CN host\nC FR\n");
    EXPECT_EQ(tracesOf([&] { const CnfFileConfiguration configuration(path); }),
              "Cnf File configuration: Reading '" + path +
                  " ...'\n"
                  "Contents of the configuration:\n"
                  "\t'C' : 'FR'\n"
                  "\t'CN' : 'host'\n");
}

TEST_F(CnfFile, ACommonNameInTheFileNeverRunsTheScript) {
    const auto configuration = read("CN host\ncommonNameScript " + script(writesArguments()) + "\n");
    EXPECT_EQ(configuration.getCN(), "host");
    EXPECT_FALSE(testsupport::Sandbox::exists(sandbox_.path("seen")));
}

TEST_F(CnfFile, TheScriptIsGivenOneEmptyArgument) {
    EXPECT_EQ(commonNameOf(writesArguments() + "\necho host"), "host");
    EXPECT_EQ(seenArguments(), "[]\n");
}

TEST_F(CnfFile, TheScriptsFinalLineFeedIsRemoved) {
    EXPECT_EQ(commonNameOf("echo host1"), "host1");
}

TEST_F(CnfFile, WithoutLineFeedTheScriptsOutputIsKept) {
    EXPECT_EQ(commonNameOf("printf host1"), "host1");
}

TEST_F(CnfFile, AnUnfinishedSecondLineLosesItsLastLetter) {
    EXPECT_EQ(commonNameOf("printf 'a\\nb'"), "a\n");
}

TEST_F(CnfFile, TheScriptsOutputsAreTracedErrorsFirst) {
    const auto configuration = read("commonNameScript " + script("echo out; echo err >&2") + "\n");
    EXPECT_EQ(tracesOf([&] { EXPECT_EQ(configuration.getCN(), "out"); }), "err\n\nout\n\n");
}

TEST_F(CnfFile, TheRecordHoldsTheNameTheScriptPrints) {
    EXPECT_EQ(dataOf("commonNameScript " + script("echo device7") + "\n").subject.common_name, "device7");
}

TEST_F(CnfFile, WithoutNameAndScriptTheCommonNameIsEmptyAndLogged) {
    EXPECT_EQ(read("C FR\n").getCN(), "");
    expectLog(
        {{SeverityError, "Daemon exception caught while calling getCN function:Common name is empty!"}});
}

TEST_F(CnfFile, AScriptThatPrintsNothingIsLogged) {
    EXPECT_EQ(commonNameOf("true"), "");
    expectLog(
        {{SeverityError, "Daemon exception caught while calling getCN function:Common name is empty!"}});
}

TEST_F(CnfFile, AScriptThatPrintsOnlyALineFeedIsLogged) {
    EXPECT_EQ(commonNameOf("echo"), "");
    expectLog(
        {{SeverityError, "Daemon exception caught while calling getCN function:Common name is empty!"}});
}

TEST_F(CnfFile, AMissingScriptIsLogged) {
    EXPECT_EQ(read("commonNameScript /nonexistent/script\n").getCN(), "");
    expectLog(
        {{SeverityError,
          "Std exception caught while calling getCN function:Cannot run /nonexistent/script: No such file "
          "or directory"}});
}

TEST_F(CnfFile, AnythingElseThatIsThrownIsLogged) {
    const auto configuration = read("commonNameScript " + script("echo host") + "\n");
    const FailingSpawn failing;
    EXPECT_EQ(configuration.getCN(), "");
    expectLog({{SeverityError, "Unknown exception caught while calling getCN function."}});
}

TEST(CnfConfiguration, AnAbsentKeyIsAnEmptyValue) {
    const std::map<std::string, std::string> map = {{"CN", "host"}};
    EXPECT_EQ(CnfConfiguration::isConfigPresent(map, "CN"), "host");
    EXPECT_EQ(CnfConfiguration::isConfigPresent(map, "OU"), "");
}

}  // namespace
