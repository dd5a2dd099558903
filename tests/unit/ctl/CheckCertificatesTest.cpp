// Request settings and stored files; how a report looks.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "CheckedDevice.h"
#include "ctl/check/Checker.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CheckCertificates : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_CHECKED_DEVICES(); }

    std::vector<std::string> withSettingsLine(unsigned line, const std::string& text) {
        device.setLine("web.cnf", line, text);
        return device.check();
    }

    CheckedDevice device;
};

const std::string kWeb = "~/services/web.conf";
const std::string kCnf = "~/web.cnf";

testsupport::CertificateOptions named(const std::string& name) {
    testsupport::CertificateOptions options;
    options.commonName = name;
    return options;
}

}  // namespace

TEST_F(CheckCertificates, SourcesOfRequestSettingsAreToldApart) {
    device.append("services/web.conf", "cnfHookFile ~/hook");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kWeb + ":8: warning: 'cnfHookFile' is never run beside 'cnfFile' [two-request-settings]",
                    kWeb + ":8: error: the file of 'cnfHookFile' does not exist: '~/hook' [hook-unusable]"));
    device.setLine("services/web.conf", 6, "#");
    device.write("hook", "#!/bin/sh\n", 0644);
    EXPECT_THAT(
        device.check(),
        ElementsAre(kWeb + ":8: error: the daemon user 'keyuser' cannot use '~/hook' [hook-unusable]"));
    device.setLine("services/web.conf", 8, "#");
    EXPECT_THAT(device.check(), ElementsAre(kWeb + ": error: neither 'cnfFile' nor 'cnfHookFile' is set "
                                                   "[no-request-settings]"));
}

TEST_F(CheckCertificates, SettingsThatCannotBeReadAreTold) {
    device.rights("web.cnf", 0600, 0, 0);
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":6: error: the daemon user 'keyuser' cannot use '~/web.cnf' "
                                   "[settings-unreadable]"));
    device.remove("web.cnf");
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":6: error: the file of 'cnfFile' does not exist: '~/web.cnf' "
                                   "[settings-unreadable]"));
}

TEST_F(CheckCertificates, AFifoInThePlaceOfSettingsHoldsNobodyUp) {
    device.remove("web.cnf");
    ASSERT_EQ(::mkfifo(device.sandbox().path("web.cnf").c_str(), 0666), 0);
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":6: error: '~/web.cnf' is no regular file [settings-unreadable]"));
}

TEST_F(CheckCertificates, KindsOfKeysThatCannotBeMadeAreTold) {
    EXPECT_THAT(withSettingsLine(1, "#"),
                ElementsAre(kCnf + ": error: 'CONFIG_KEY' is missing [no-key-type]"));
    EXPECT_THAT(withSettingsLine(1, "CONFIG_KEY SECP521R1"),
                ElementsAre(kCnf + ":1: error: 'SECP521R1' is no kind of key [unknown-key-type]"));
    device.append("web.cnf", "default_bits 4096");
    EXPECT_THAT(withSettingsLine(1, "CONFIG_KEY PRIME256V1"),
                ElementsAre(kCnf + ":9: warning: 'default_bits' has no effect without 'CONFIG_KEY RSA2048' "
                                   "[without-effect]"));
}

TEST_F(CheckCertificates, EveryKindOfKeyThatCanBeMadeIsAccepted) {
    for (const char* type : {"PRIME256V1", "RSA2048", "SECP384R1", "ED25519"}) {
        EXPECT_THAT(withSettingsLine(1, std::string("CONFIG_KEY ") + type), IsEmpty()) << type;
    }
    device.append("web.cnf", "default_bits 4096");
    for (const char* type : {"SECP384R1", "ED25519"}) {
        EXPECT_THAT(
            withSettingsLine(1, std::string("CONFIG_KEY ") + type),
            ElementsAre(kCnf + ":9: warning: 'default_bits' has no effect without 'CONFIG_KEY RSA2048' "
                               "[without-effect]"))
            << type;
    }
}

TEST_F(CheckCertificates, SizesOfRsaKeysAreTold) {
    device.setLine("web.cnf", 1, "CONFIG_KEY RSA2048");
    EXPECT_THAT(device.check(), IsEmpty());
    device.append("web.cnf", "default_bits lots");
    EXPECT_THAT(device.check(),
                ElementsAre(kCnf + ":9: error: no RSA key can be made of 'lots' bits [key-size]"));
    EXPECT_THAT(withSettingsLine(9, "default_bits 20000"),
                ElementsAre(kCnf + ":9: error: no RSA key can be made of '20000' bits [key-size]"));
    EXPECT_THAT(withSettingsLine(9, "default_bits 1024"),
                ElementsAre(kCnf + ":9: warning: an RSA key of '1024' bits is too weak [weak-key]"));
}

TEST_F(CheckCertificates, ExtensionsThatOpenSslDoesNotTakeAreTold) {
    device.append("web.cnf", "keyUsage critical,keyCertSign,CRLSign");
    device.append("web.cnf", "extendedKeyUsage serverAuth, critical");
    device.append("web.cnf", "subjectKeyIdentifier hash");
    EXPECT_THAT(
        withSettingsLine(8, "basicConstraints CA=TRUE"),
        ElementsAre(kCnf + ":8: error: 'basicConstraints' is left out, OpenSSL does not take its value "
                           "'CA=TRUE' [refused-extension]",
                    kCnf + ":9: error: 'keyUsage' is left out, OpenSSL does not take its value "
                           "'critical,keyCertSign,CRLSign' [refused-extension]",
                    kCnf + ":10: error: 'extendedKeyUsage' is left out, OpenSSL does not take its value "
                           "'serverAuth, critical' [refused-extension]"));
}

TEST_F(CheckCertificates, TheAdviceKnowsTheTraps) {
    device.append("web.cnf", "keyUsage keyCertSign,CRLSign");
    device.append("web.cnf", "extendedKeyUsage serverAuth,critical");
    device.setLine("web.cnf", 8, "basicConstraints @section");
    const std::string text = device.on([] { return reportText(keywardctl::check::checkDevice({})); });
    EXPECT_THAT(text, testing::HasSubstr("\n    OpenSSL reads 'cRLSign' with this small c only.\n"));
    EXPECT_THAT(text, testing::HasSubstr("\n    'critical' comes first: 'critical,...'.\n"));
    EXPECT_THAT(text, testing::HasSubstr("\n    There are no sections to refer to with '@': write the values "
                                         "themselves.\n"));
}

TEST_F(CheckCertificates, PartsOfTheSubjectThatAreLostAreTold) {
    device.setLine("web.cnf", 4, "#");
    EXPECT_THAT(
        withSettingsLine(2, "C Germany"),
        ElementsAre(kCnf + ": warning: 'L' is missing: the subject gets it empty [empty-subject]",
                    kCnf + ":2: error: 'C' is left out of the subject, OpenSSL does not take its value "
                           "'Germany' [refused-subject]"));
}

TEST_F(CheckCertificates, ACommonNameThatIsMissingIsTold) {
    EXPECT_THAT(withSettingsLine(7, "#"),
                ElementsAre(kCnf + ": error: neither 'CN' nor 'commonNameScript' is set "
                                   "[no-common-name]"));
    EXPECT_THAT(withSettingsLine(7, "commonNameScript ~/name.sh"),
                ElementsAre(kCnf + ":7: error: the daemon user 'keyuser' cannot run '~/name.sh' "
                                   "[common-name-script]"));
    device.folder("out", 0777, 0, 0);
    device.write("name.sh", "#!/bin/sh\ntouch ~/out/ran\n", 0755);
    EXPECT_THAT(device.check(), IsEmpty());
    EXPECT_FALSE(testsupport::Sandbox::exists(device.sandbox().path("out/ran"))) << "it is not run";
}

TEST_F(CheckCertificates, SettingsThatDoNothingAreTold) {
    device.append("web.cnf", "default_md sha512");
    device.append("web.cnf", "commonNameScript ~/owner.sh");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kCnf + ":9: warning: 'default_md' has no effect: the daemon always signs with SHA-256 "
                           "[without-effect]",
                    kCnf + ":10: warning: 'commonNameScript' is never run beside 'CN' [without-effect]"));
}

TEST_F(CheckCertificates, ADigestForAKeyThatSignsWithoutIsTold) {
    device.setLine("web.cnf", 1, "CONFIG_KEY ED25519");
    device.append("web.cnf", "default_md sha256");
    EXPECT_THAT(device.check(),
                ElementsAre(kCnf + ":9: warning: 'default_md' has no effect: ED25519 keys sign without a "
                                   "digest [without-effect]"));
    EXPECT_THAT(withSettingsLine(1, "CONFIG_KEY SECP384R1"), IsEmpty());
}

TEST_F(CheckCertificates, TheAdviceNamesEveryKindOfKey) {
    device.setLine("web.cnf", 1, "CONFIG_KEY SECP521R1");
    const std::string text = device.on([] { return reportText(keywardctl::check::checkDevice({})); });
    EXPECT_THAT(text,
                testing::HasSubstr("\n    No certificate or request can be made: write PRIME256V1, RSA2048, "
                                   "SECP384R1 or ED25519.\n"));
}

TEST_F(CheckCertificates, AProperStoreYieldsNothing) {
    device.storePair({});
    device.storeTrusted("ca", named("ca"));
    device.append("services/web.conf", "ca yes");
    EXPECT_THAT(device.check(), IsEmpty());
}

TEST_F(CheckCertificates, RightsOfStoredFilesAreTold) {
    const std::string id = device.storePair({});
    const std::string server = "store/web/server/";
    device.rights(server + id, 0600, CheckedDevice::kUser, CheckedDevice::kKeys);
    device.rights(server + id + ".key", 0644, CheckedDevice::kUser, CheckedDevice::kKeys);
    device.rights(server + ".cacheddata/active.txt", 0644, 0, CheckedDevice::kManagement);
    EXPECT_THAT(
        device.check(),
        ElementsAre(
            "~/store/web/server/.cacheddata/active.txt: error: the owner is not the daemon user "
            "'keyuser', who has to change it [wrong-owner]",
            "~/store/web/server/" + id + ": warning: the mode is 0600 and should be 0644 [wrong-mode]",
            "~/store/web/server/" + id + ": warning: the group is not 'kwmgmt' [wrong-group]",
            "~/store/web/server/" + id +
                ".key: error: everybody may use this private key: its mode "
                "is 0644 [key-readable]"));
}

TEST_F(CheckCertificates, AnActiveFileWithoutAnIdIsTold) {
    device.storePair({});
    device.write("store/web/server/.cacheddata/active.txt", "../../etc/passwd");
    device.rights("store/web/server/.cacheddata/active.txt", 0644, CheckedDevice::kUser,
                  CheckedDevice::kManagement);
    EXPECT_THAT(device.check(), testing::UnorderedElementsAre(
                                    "~/store/web/server/.cacheddata/active.txt: error: '../../etc/passwd' is "
                                    "no id of a certificate [active-malformed]",
                                    testing::HasSubstr("[not-in-force]")));
}

TEST_F(CheckCertificates, AnActiveIdWithoutFilesIsTold) {
    const std::string id = device.storePair({});
    device.remove("store/web/server/" + id + ".key");
    EXPECT_THAT(device.check(),
                ElementsAre("~/store/web/server/.cacheddata/active.txt: error: the active certificate "
                            "has no file '~/store/web/server/" +
                            id + ".key' [active-without-files]"));
}

TEST_F(CheckCertificates, FilesOfCertificatesThatAreNotInForceAreTold) {
    const std::string id = device.storePair({});
    const std::string server = "store/web/server/";
    for (const char* const name : {"0a1b2c3d.0", "0a1b2c3d.0.key", ".cacheddata/0a1b2c3d.0.network",
                                   ".cacheddata/0a1b2c3d.0.overwrite", ".cacheddata/1a1b2c3d.0.network"})
        device.write(server + name, "x");
    device.write(server + id + ".kept", "x");
    device.write(server + id + ".kept.key", "x");
    for (const char* const name : {"README", "0a1b2c3d.0.backup", "0a1b2c3d", ".0a1b2c3d.0.7.0.new"})
        device.write(server + name, "x");
    const std::string store = "~/store/web/server";
    const std::string begin = store + ": warning: files of a certificate that is not in force: ";
    EXPECT_THAT(device.check(), testing::UnorderedElementsAre(
                                    begin + "'" + store + "/0a1b2c3d.0', '" + store + "/0a1b2c3d.0.key', '" +
                                        store + "/.cacheddata/0a1b2c3d.0.network', '" + store +
                                        "/.cacheddata/0a1b2c3d.0.overwrite' [not-in-force]",
                                    begin + "'" + store + "/.cacheddata/1a1b2c3d.0.network' [not-in-force]",
                                    begin + "'" + store + "/" + id + ".kept', '" + store + "/" + id +
                                        ".kept.key' [not-in-force]"));
    const std::string text = device.on([] { return reportText(keywardctl::check::checkDevice({})); });
    EXPECT_THAT(text,
                testing::HasSubstr("\n    To put it in force, write its id into '" + store +
                                   "/.cacheddata/active.txt', without a line end, and reload the service; "
                                   "else remove them.\n"));
    EXPECT_THAT(text,
                testing::HasSubstr("\n    Without a certificate and its key beside each other none can be "
                                   "put in force: remove them.\n"));
    EXPECT_THAT(text,
                testing::HasSubstr("\n    A new certificate got its id. To put this one in force, move " +
                                   store + "/" + id + ".kept and "));
}

TEST_F(CheckCertificates, ACertificateThatTheActiveFileDoesNotNameIsTold) {
    const std::string id = device.storePair({});
    device.remove("store/web/server/.cacheddata/active.txt");
    EXPECT_THAT(device.check(),
                ElementsAre("~/store/web/server: warning: files of a certificate that is not in force: "
                            "'~/store/web/server/" +
                            id + "', '~/store/web/server/" + id + ".key' [not-in-force]"));
}

TEST_F(CheckCertificates, FilesThatHoldNoCertificateAndNoKeyAreTold) {
    const std::string id = device.storePair({});
    const std::string server = "store/web/server/";
    device.write(server + id, "no certificate");
    device.write(server + id + ".key", "no key");
    device.rights(server + id, 0644, CheckedDevice::kUser, CheckedDevice::kManagement);
    device.rights(server + id + ".key", 0640, CheckedDevice::kUser, CheckedDevice::kKeys);
    EXPECT_THAT(device.check(),
                ElementsAre("~/" + server + id +
                                ": error: this is no certificate: Failed to read certificate from "
                                "text. [certificate-unreadable]",
                            "~/" + server + id +
                                ".key: error: this is no private key: it holds no private key "
                                "[key-unreadable]"));
}

TEST_F(CheckCertificates, AFifoInThePlaceOfAKeyHoldsNobodyUp) {
    const std::string id = device.storePair({});
    const std::string key = "store/web/server/" + id + ".key";
    device.remove(key);
    ASSERT_EQ(::mkfifo(device.sandbox().path(key).c_str(), 0640), 0);
    device.rights(key, 0640, CheckedDevice::kUser, CheckedDevice::kKeys);
    EXPECT_THAT(device.check(), ElementsAre("~/" + key +
                                            ": error: this is no private key: it is not a regular file "
                                            "[key-unreadable]"));
}

TEST_F(CheckCertificates, AKeyOfAnotherCertificateIsTold) {
    const std::string id = device.storePair({});
    const std::string key = "store/web/server/" + id + ".key";
    device.write(key, testsupport::makeCertificate({}).keyPem);
    device.rights(key, 0640, CheckedDevice::kUser, CheckedDevice::kKeys);
    EXPECT_THAT(device.check(), ElementsAre("~/" + key +
                                            ": error: the key does not belong to the certificate "
                                            "[key-mismatch]"));
}

TEST_F(CheckCertificates, ACertificateOutsideOfItsTimeIsTold) {
    const std::string id = device.storePair({});
    device.setClock(2208988800 + 1);
    EXPECT_THAT(device.check(), ElementsAre("~/store/web/server/" + id +
                                            ": error: the service's certificate has "
                                            "ended [certificate-ended]"));
    device.setClock(1577836800 - 1);
    EXPECT_THAT(device.check(), ElementsAre("~/store/web/server/" + id +
                                            ": error: the service's certificate is not "
                                            "valid yet [certificate-not-yet-valid]"));
    device.setClock(946555199);
    EXPECT_THAT(device.check(),
                ElementsAre("the device: error: the clock was never set: no certificate is made "
                            "before 1999-12-30 12:00 [clock-unset]"));
}

TEST_F(CheckCertificates, TrustedCertificatesThatDoNotCountAreTold) {
    testsupport::CertificateOptions ended = named("ended");
    ended.expired = true;
    const std::string old = device.storeTrusted("client", ended);
    device.storeTrusted("client", named("good"));
    device.write("store/web/client/00000000.0", "nothing");
    device.rights("store/web/client/00000000.0", 0644, CheckedDevice::kUser, CheckedDevice::kManagement);
    device.append("services/web.conf", "trustedClients yes");
    EXPECT_THAT(
        device.check(),
        testing::UnorderedElementsAre(
            "~/store/web/client/00000000.0: error: this is no certificate, and the daemon leaves it out: "
            "Failed to read certificate from text. [stored-certificate]",
            "~/store/web/client/" + old +
                ": warning: this trusted certificate has ended [trusted-certificate-ended]"));
}

TEST(CheckReport, TheTextNamesPlaceSeverityAndCodeAndEndsWithASummary) {
    using namespace keywardctl::check;
    Report report;
    report.add(Code::WrongMode, {"/b"}, "later", "do");
    report.add(Code::UnknownKey, {"/a", 9}, "second", "do");
    report.add(Code::RepeatedKey, {"/a", 3}, "first", "do");
    report.add(Code::RepeatedKey, {"/a", 3}, "first", "do");
    EXPECT_EQ(reportText(report),
              "/b: warning: later [wrong-mode]\n    do\n/a:3: warning: first [repeated-key]\n    do\n"
              "/a:9: error: second [unknown-key]\n    do\n1 error, 2 warnings, 0 notes\n");
}

TEST(CheckReport, TheJsonHasItsVersionAndEveryPartOfAFinding) {
    using namespace keywardctl::check;
    Report report;
    EXPECT_EQ(reportJson(report), "{\"version\":1,\"findings\":[]}\n");
    report.add(Code::UnknownKey, {"/a", 9}, "a \"key\"\xc3\xa9", "do");
    EXPECT_EQ(reportJson(report),
              "{\"version\":1,\"findings\":[{\"severity\":\"error\",\"file\":\"/a\",\"line\":9,"
              "\"code\":\"unknown-key\",\"text\":\"a \\\"key\\\"\\u00e9\",\"advice\":\"do\"}]}\n");
}

TEST(CheckReport, NothingInATextReachesTheTerminalAsACommand) {
    using keywardctl::check::printable;
    EXPECT_EQ(printable("a\x1b[2J\n\x7f"), "a\\x1b[2J\\x0a\\x7f");
    EXPECT_EQ(printable("\xc3\xa9 \xe2\x82\xac"), "\xc3\xa9 \xe2\x82\xac");
    EXPECT_EQ(printable("\xc2\x9b\xff\xc3"), "\\xc2\\x9b\\xff\\xc3");
    EXPECT_EQ(printable("\xf0\x9f\x98\x80"), "\\xf0\\x9f\\x98\\x80");
    EXPECT_EQ(printable("\xe0\x80\x80\xed\xa0\x80"), "\\xe0\\x80\\x80\\xed\\xa0\\x80");
}

TEST(CheckReport, EveryCodeHasItsEntry) {
    using namespace keywardctl::check;
    for (std::size_t index = 0; index < codeTable().size(); ++index)
        EXPECT_EQ(static_cast<std::size_t>(codeTable()[index].code), index) << codeTable()[index].name;
    EXPECT_EQ(codeTable().back().code, Code::NotLookedAt);
}
