#include "stores/CertificateInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

#include "tests/unit/stores/Failures.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::CertificateInfo;
using testsupport::Sandbox;

using Texts = std::vector<std::string>;

constexpr const char* kMembers =
    R"("issuerName":"Root CA","subjectName":"device","isCA":false,"isSelfSigned":false,)"
    R"("validFrom":1577836800,"validUntil":5000000000,)"
    R"("validIPs":["10.0.0.5","fe80::1"],"validHostnames":["a.example","b.example"]})";

std::string recordOfVersion(const std::string& version) {
    return R"({"data_structure_version":)" + version + "," + kMembers;
}

CertificateInfo infoOf(const std::string& json) {
    const Sandbox sandbox;
    return CertificateInfo(sandbox.write("record", json));
}

std::string textOf(const CertificateInfo& info) {
    std::ostringstream text;
    text << info;
    return text.str();
}

/// What reading the text as a record fails with, after the part that every such failure begins with.
std::string reasonOf(const std::string& json) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("record", json);
    const std::string failure = runtimeErrorOf([&path] { const CertificateInfo info(path); });
    const std::string beginning = "Error: Impossible to open " + path + " for reading!";
    return failure.rfind(beginning, 0) == 0 ? failure.substr(beginning.size()) : "other text: " + failure;
}

TEST(CertificateInfo, EveryMemberIsRead) {
    const CertificateInfo info = infoOf(recordOfVersion("1"));
    EXPECT_EQ(info.issuerName, "Root CA");
    EXPECT_EQ(info.subjectName, "device");
    EXPECT_FALSE(info.isCA);
    EXPECT_FALSE(info.isSelfSigned);
    EXPECT_EQ(info.validFrom, 1577836800U);
    EXPECT_EQ(info.validUntil, 5000000000U);
    EXPECT_EQ(info.validIPs, (Texts{"10.0.0.5", "fe80::1"}));
    EXPECT_EQ(info.validHostnames, (Texts{"a.example", "b.example"}));
}

TEST(CertificateInfo, LaterVersionAndOtherLayoutAreRead) {
    EXPECT_EQ(infoOf(recordOfVersion("2")).subjectName, "device");
    std::string spread = "{\n  \"data_structure_version\" : 1,\n";
    spread += kMembers;
    EXPECT_EQ(infoOf(spread).subjectName, "device");
}

TEST(CertificateInfo, MissingFileIsAnError) {
    EXPECT_EQ(runtimeErrorOf([] { const CertificateInfo info(std::string("/nowhere/record")); }),
              "Error: Impossible to open /nowhere/record for reading! Because the file does not exist.");
}

TEST(CertificateInfo, VersionBelowOneIsABadFormat) {
    const Sandbox sandbox;
    for (const char* version : {"0", "-1"}) {
        const std::string path = sandbox.write("record", recordOfVersion(version));
        EXPECT_EQ(runtimeErrorOf([&path] { const CertificateInfo info(path); }),
                  "Error: Bad format for Certificate info file!")
            << version;
    }
}

TEST(CertificateInfo, VersionBelowOneIsABadFormatEvenWithoutOtherMembers) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("record", R"({"data_structure_version":0})");
    EXPECT_EQ(runtimeErrorOf([&path] { const CertificateInfo info(path); }),
              "Error: Bad format for Certificate info file!");
}

TEST(CertificateInfo, FileThatIsNoJsonFailsWithTheReadersReason) {
    EXPECT_EQ(reasonOf(""), "parsing json failed in line 1: unexpected end of json");
    EXPECT_EQ(reasonOf(R"({"data_structure_version":1,)"),
              "parsing json failed in line 1: unexpected end of json");
}

TEST(CertificateInfo, MissingMemberFails) {
    EXPECT_EQ(reasonOf("{}"), "Member \"data_structure_version\" not found");
    EXPECT_EQ(reasonOf(R"({"data_structure_version":1})"), "Member \"issuerName\" not found");
}

TEST(CertificateInfo, MemberOfTheWrongKindFails) {
    std::string json = recordOfVersion("1");
    json.replace(json.find("1577836800"), 10, "-1");
    EXPECT_NE(reasonOf(json).find("\"validFrom\""), std::string::npos) << reasonOf(json);
    EXPECT_NE(reasonOf(recordOfVersion("\"one\"")).find("\"data_structure_version\""), std::string::npos);
}

TEST(CertificateInfo, FolderAndFifoFailWithoutBlocking) {
    const Sandbox sandbox;
    const std::string fifo = sandbox.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, sandbox.path()}) {
        std::string expected = "Error: Impossible to open " + path + " for reading!";
        expected.append("Impossible to read the file '").append(path).append("': It is not a regular file");
        EXPECT_EQ(runtimeErrorOf([&path] { const CertificateInfo info(path); }), expected);
    }
}

TEST(CertificateInfo, FileOfNothingButBracketsFails) {
    const std::string deeper(1000000, '[');
    EXPECT_EQ(reasonOf(deeper), "It is not a certificate record");
    EXPECT_EQ(reasonOf(R"({"a\"":)" + deeper), "It is not a certificate record");
    EXPECT_EQ(reasonOf(R"({"a":"\\",)" + deeper), "It is not a certificate record");
    EXPECT_EQ(reasonOf(std::string(100, '[')), "parsing json failed in line 1: unexpected end of json");
    EXPECT_EQ(reasonOf(std::string(101, '[')), "It is not a certificate record");
}

TEST(CertificateInfo, BracketsThatNothingClosesAreCountedWhateverStandsBetweenThem) {
    std::string mixed;
    for (int count = 0; count < 300000; ++count)
        mixed += "[}{]";
    EXPECT_EQ(reasonOf(mixed), "It is not a certificate record");
}

TEST(CertificateInfo, CommentHidesNoBrackets) {
    EXPECT_EQ(reasonOf("/*\"*/" + std::string(1000000, '[')), "It is not a certificate record");
    EXPECT_EQ(reasonOf("//\"\n" + std::string(1000000, '[')), "It is not a certificate record");
}

TEST(CertificateInfo, BracketsInNamesAreNoLevels) {
    std::string json = recordOfVersion("1");
    const std::string name = std::string(5000, '[') + std::string(5000, '{');
    json.replace(json.find("Root CA"), 7, R"(\"\\)" + name);
    EXPECT_EQ(infoOf(json).issuerName, "\"\\" + name);
}

TEST(CertificateInfo, MembersOfALaterVersionAreLeftAside) {
    std::string json = recordOfVersion("2");
    json.insert(1, R"("levels":[)" + std::string(50, '[') + std::string(50, ']') + "],");
    EXPECT_EQ(infoOf(json).subjectName, "device");
}

TEST(CertificateInfo, FailedReadKeepsTheFields) {
    const Sandbox sandbox;
    CertificateInfo info = infoOf(recordOfVersion("1"));
    const std::string path = sandbox.write(
        "record", R"({"data_structure_version":1,"issuerName":"new","subjectName":"new","isCA":true})");
    EXPECT_THROW(info.read(path), std::runtime_error);
    EXPECT_EQ(info.issuerName, "Root CA");
    EXPECT_FALSE(info.isCA);
}

TEST(CertificateInfo, SecondReadTakesThePlaceOfTheFirst) {
    const Sandbox sandbox;
    CertificateInfo info = infoOf(recordOfVersion("1"));
    info.read(sandbox.write("record",
                            R"({"data_structure_version":1,"issuerName":"i","subjectName":"s","isCA":true,)"
                            R"("isSelfSigned":true,"validFrom":1,"validUntil":2,"validIPs":[],)"
                            R"("validHostnames":["only"]})"));
    EXPECT_TRUE(info.isCA);
    EXPECT_EQ(info.validIPs, Texts());
    EXPECT_EQ(info.validHostnames, Texts{"only"});
}

TEST(CertificateInfo, TextHasOneLineAFieldAndNumbersEveryNameOne) {
    EXPECT_EQ(textOf(infoOf(recordOfVersion("1"))),
              "issuerName: Root CA\n"
              "subjectName: device\n"
              "CA: no\n"
              "CASigned: yes\n"
              "selfSigned: no\n"
              "validFrom: 1577836800\n"
              "validUntil: 5000000000\n"
              "IP.1: 10.0.0.5\n"
              "IP.1: fe80::1\n"
              "DNS.1: a.example\n"
              "DNS.1: b.example\n");
}

TEST(CertificateInfo, TextOfASelfSignedCertificateWithoutNamesEndsWithItsDates) {
    CertificateInfo info = infoOf(recordOfVersion("1"));
    info.isCA = true;
    info.isSelfSigned = true;
    info.validIPs.clear();
    info.validHostnames.clear();
    EXPECT_EQ(textOf(info),
              "issuerName: Root CA\n"
              "subjectName: device\n"
              "CA: yes\n"
              "CASigned: no\n"
              "selfSigned: yes\n"
              "validFrom: 1577836800\n"
              "validUntil: 5000000000\n");
}

TEST(CertificateInfo, LineFeedInANameMakesNoNewLine) {
    CertificateInfo info = infoOf(recordOfVersion("1"));
    info.subjectName = "device\nCA: yes";
    info.validHostnames = {"a\nselfSigned: yes"};
    EXPECT_NE(textOf(info).find("\nsubjectName: device CA: yes\nCA: no\n"), std::string::npos);
    EXPECT_NE(textOf(info).find("\nDNS.1: a selfSigned: yes\n"), std::string::npos);
}

TEST(CertificateInfo, MapHasEveryFieldAsText) {
    EXPECT_EQ(infoOf(recordOfVersion("1")).getMap(),
              (std::map<std::string, std::string>{{"issuerName", "Root CA"},
                                                  {"subjectName", "device"},
                                                  {"isCA", "no"},
                                                  {"isSelfSigned", "no"},
                                                  {"validFrom", "1577836800"},
                                                  {"validUntil", "5000000000"},
                                                  {"validIPs", "10.0.0.5 fe80::1"},
                                                  {"validHostnames", "a.example b.example"}}));
}

TEST(CertificateInfo, BooleansReadYesAndNo) {
    EXPECT_EQ(CertificateInfo::boolToString(true), "yes");
    EXPECT_EQ(CertificateInfo::boolToString(false), "no");
}

}  // namespace
