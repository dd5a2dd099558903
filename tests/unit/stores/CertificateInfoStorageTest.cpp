#include "stores/CertificateInfoStorage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "stores/CertificateId.h"
#include "stores/CertificateInfo.h"
#include "support/Tools.h"
#include "tests/unit/stores/Failures.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::CertificateInfo;
using keywarden::CertificateInfoStorage;
using keywarden::Tools;
using keywarden::X509_T;
using testsupport::CertificateOptions;
using testsupport::IssuedCertificate;
using testsupport::makeCertificate;
using testsupport::Sandbox;

using Texts = std::vector<std::string>;

X509_T certificateOf(const CertificateOptions& options, const IssuedCertificate* issuer = nullptr) {
    return X509_T::fromPem(makeCertificate(options, issuer).certificatePem);
}

CertificateOptions withNames() {
    CertificateOptions options;
    options.organization = "Example";
    options.dns = {"b.example", "a.example"};
    options.ips = {"10.0.0.5", "fe80:0:0:0:0:0:0:1"};
    return options;
}

TEST(CertificateInfoStorage, TakesItsFieldsFromTheCertificate) {
    CertificateOptions authority;
    authority.commonName = "Root CA";
    authority.ca = true;
    const IssuedCertificate issuer = makeCertificate(authority);
    const CertificateInfoStorage info(certificateOf(withNames(), &issuer));
    EXPECT_EQ(info.issuerName, "Root CA");
    EXPECT_EQ(info.subjectName, "device");
    EXPECT_FALSE(info.isCA);
    EXPECT_FALSE(info.isSelfSigned);
    EXPECT_EQ(info.validFrom, 1577836800U);
    EXPECT_EQ(info.validUntil, 2208988800U);
    EXPECT_EQ(info.validIPs, (Texts{"10.0.0.5", "fe80::1"}));
    EXPECT_EQ(info.validHostnames, (Texts{"b.example", "a.example"}));
}

TEST(CertificateInfoStorage, SelfSignedAuthorityIsBoth) {
    CertificateOptions options;
    options.ca = true;
    const CertificateInfoStorage info(certificateOf(options));
    EXPECT_TRUE(info.isCA);
    EXPECT_TRUE(info.isSelfSigned);
    EXPECT_EQ(info.issuerName, "device");
}

TEST(CertificateInfoStorage, CertificateOfTheSameNameByAnotherKeyIsNotSelfSigned) {
    const IssuedCertificate issuer = makeCertificate(CertificateOptions());
    const CertificateInfoStorage info(certificateOf(CertificateOptions(), &issuer));
    EXPECT_EQ(info.issuerName, info.subjectName);
    EXPECT_FALSE(info.isSelfSigned);
}

TEST(CertificateInfoStorage, CertificateWithoutACommonNameHasEmptyNames) {
    CertificateOptions options;
    options.commonName = "";
    options.organization = "Example";
    const CertificateInfoStorage info(certificateOf(options));
    EXPECT_EQ(info.issuerName, "");
    EXPECT_EQ(info.subjectName, "");
}

TEST(CertificateInfoStorage, RecordIsCompactJsonWithoutALineEnd) {
    EXPECT_EQ(CertificateInfoStorage(certificateOf(withNames())).toJson(),
              R"({"data_structure_version":1,"issuerName":"device","subjectName":"device","isCA":false,)"
              R"("isSelfSigned":true,"validFrom":1577836800,"validUntil":2208988800,)"
              R"("validIPs":["10.0.0.5","fe80::1"],"validHostnames":["b.example","a.example"]})");
}

TEST(CertificateInfoStorage, CertificateWithoutAlternativeNamesHasTwoEmptyArrays) {
    CertificateOptions options;
    options.ca = true;
    EXPECT_EQ(CertificateInfoStorage(certificateOf(options)).toJson(),
              R"({"data_structure_version":1,"issuerName":"device","subjectName":"device","isCA":true,)"
              R"("isSelfSigned":true,"validFrom":1577836800,"validUntil":2208988800,)"
              R"("validIPs":[],"validHostnames":[]})");
}

TEST(CertificateInfoStorage, DateBeyond32BitsIsWrittenWhole) {
    CertificateOptions options;
    options.notAfter = 253402300799;  // the last second of 9999
    const CertificateInfoStorage info(certificateOf(options));
    EXPECT_EQ(info.validUntil, 253402300799U);
    EXPECT_NE(info.toJson().find("\"validUntil\":253402300799,"), std::string::npos) << info.toJson();
}

TEST(CertificateInfoStorage, NameOutsideAsciiIsEscapedAndComesBackAsTheSameBytes) {
    const Sandbox sandbox;
    CertificateOptions options;
    options.commonName = "caf\xc3\xa9 \"\\\n\xe2\x82\xac";
    const CertificateInfoStorage info(certificateOf(options));
    EXPECT_NE(info.toJson().find(R"("subjectName":"caf\u00c3\u00a9 \"\\\n\u00e2\u0082\u00ac",)"),
              std::string::npos)
        << info.toJson();
    info.writeIntoFile(sandbox.path("record"));
    EXPECT_EQ(CertificateInfo(sandbox.path("record")).subjectName, options.commonName);
}

TEST(CertificateInfoStorage, WrittenFileHoldsTheRecordAndGetsModeAndGroup) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("record");
    const CertificateInfoStorage info(certificateOf(withNames()), path, {0644, "daemon", "", true});
    EXPECT_EQ(Sandbox::read(path), info.toJson());
    EXPECT_EQ(Sandbox::mode(path), 0644U);
    EXPECT_EQ(Tools::getRights(path).gid, Tools::getGroupId("daemon"));
}

TEST(CertificateInfoStorage, WrittenFileReadsBackAsTheSame) {
    const Sandbox sandbox;
    CertificateOptions authority;
    authority.commonName = "Root CA";
    const IssuedCertificate issuer = makeCertificate(authority);
    const CertificateInfoStorage written(certificateOf(withNames(), &issuer), sandbox.path("record"));
    const CertificateInfo read(sandbox.path("record"));
    EXPECT_EQ(read.issuerName, written.issuerName);
    EXPECT_EQ(read.subjectName, written.subjectName);
    EXPECT_EQ(read.isCA, written.isCA);
    EXPECT_EQ(read.isSelfSigned, written.isSelfSigned);
    EXPECT_EQ(read.validFrom, written.validFrom);
    EXPECT_EQ(read.validUntil, written.validUntil);
    EXPECT_EQ(read.validIPs, written.validIPs);
    EXPECT_EQ(read.validHostnames, written.validHostnames);
}

// Whatever a certificate's names hold.
TEST(CertificateInfoStorage, NamesOfEveryByteReadBackAsTheSame) {
    const Sandbox sandbox;
    CertificateInfoStorage written(certificateOf(withNames()));
    for (unsigned byte = 0; byte < 256; ++byte)
        written.subjectName += static_cast<char>(byte);
    written.issuerName = std::string(3000, '[') + std::string(3000, '{') + "\\\"/*//";
    written.validHostnames = {"]}", "", "\\", "\""};
    written.validFrom = 0;
    written.validUntil = UINT64_MAX;
    written.writeIntoFile(sandbox.path("record"));
    const CertificateInfo read(sandbox.path("record"));
    EXPECT_EQ(read.subjectName, written.subjectName);
    EXPECT_EQ(read.issuerName, written.issuerName);
    EXPECT_EQ(read.validHostnames, written.validHostnames);
    EXPECT_EQ(read.validFrom, written.validFrom);
    EXPECT_EQ(read.validUntil, written.validUntil);
}

TEST(CertificateInfoStorage, RecordOfTheLargestNameReadsBack) {
    const Sandbox sandbox;
    CertificateInfoStorage written(certificateOf(withNames()));
    // All of a certificate file, in Latin letters that become two bytes each.
    for (std::size_t count = 0; count < keywarden::kLargestCertificateFile / 4 * 3; ++count)
        written.subjectName += "\xc3\xa9";
    written.writeIntoFile(sandbox.path("record"));
    EXPECT_EQ(CertificateInfo(sandbox.path("record")).subjectName, written.subjectName);
}

TEST(CertificateInfoStorage, FileThatCannotBeWrittenFailsWithTheReason) {
    const Sandbox sandbox;
    const std::string folder = sandbox.path("folder");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const CertificateInfoStorage info(certificateOf(CertificateOptions()));
    EXPECT_EQ(runtimeErrorOf([&info] { info.writeIntoFile("/nowhere/record"); }),
              "Error: Impossible to open /nowhere/recordfor writting with error No such file or directory");
    EXPECT_EQ(runtimeErrorOf([&] { info.writeIntoFile(folder); }),
              "Error: Impossible to open " + folder + "for writting with error Is a directory");
}

}  // namespace
