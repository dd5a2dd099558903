#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "stores/CertificateInfoStorage.h"
#include "tests/unit/stores/Failures.h"
#include "tests/unit/stores/StoreFixture.h"
#include "testsupport/Child.h"
#include "testsupport/Traces.h"
#include "x509/Inspection.h"

namespace {

using keywarden::CertificateAuthority;
using keywarden::CertificateInfoStorage;
using keywarden::ExternalCertificatesStorage;
using keywarden::TrustedCertificate;
using keywarden::X509_T;
using testsupport::Sandbox;
using testsupport::tracesOf;

class StoreAddition : public StoreTest {
  protected:
    [[nodiscard]] std::string full(const std::string& store) const {
        return "42 Too many certificates found while adding certificate inside " + store + " for " + service_;
    }
    [[nodiscard]] std::string present(const std::string& store) const {
        return "43 Certificate already present inside " + store + " for " + service_;
    }
    std::string failureToAdd(ExternalCertificatesStorage& store, const std::string& path) {
        return daemonFailureOf([&] { store.add(path); });
    }
};

std::string withCarriageReturns(const std::string& text) {
    std::string result;
    for (const char character : text) {
        if (character == '\n')
            result += '\r';
        result += character;
    }
    return result;
}

TEST_F(StoreAddition, IdIsTheSubjectHashAndTheSuffixZero) {
    CertificateAuthority store = authorities();
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.0");
}

TEST_F(StoreAddition, HashKeepsItsLeadingZeros) {
    TrustedCertificate store = clients();
    EXPECT_EQ(store.add(source(pem("device40", false))), "00535762.0");
}

TEST_F(StoreAddition, FileIsCopiedByteForByte) {
    CertificateAuthority store = authorities();
    const std::string content =
        "Root of everything\r\n" + pem("device") + pem("another") + "tail without end";
    const std::string id = store.add(source(content));
    EXPECT_EQ(Sandbox::read(paths("ca").certPath(id)), content);
}

TEST_F(StoreAddition, StoredFilesGetModeAndGroup) {
    CertificateAuthority store = authorities();
    const std::string id = store.add(source(pem("device")));
    const auto ca = paths("ca");
    for (const std::string& path :
         {ca.certPath(id), ca.certInfoPath(id), ca.certDetailsPath(id), ca.listPath(), ca.cnMapPath()})
        expectRights(path, 0644);
}

TEST_F(StoreAddition, RecordDetailsListAndMapDescribeTheCertificate) {
    TrustedCertificate store = clients();
    const std::string certificate = pem("device", false);
    const std::string id = store.add(source(certificate));
    const std::string other = store.add(source(pem("Web Server CA")));
    const auto client = paths("client");
    const X509_T expected = X509_T::fromPem(certificate);
    EXPECT_EQ(Sandbox::read(client.certInfoPath(id)), CertificateInfoStorage(expected).toJson());
    EXPECT_EQ(Sandbox::read(client.certDetailsPath(id)), keywarden::printedText(expected));
    ASSERT_LT(other, id);
    EXPECT_EQ(Sandbox::read(client.listPath()), other + "\n" + id + "\n");
    EXPECT_EQ(Sandbox::read(client.cnMapPath()), other + " Web Server CA\n" + id + " device\n");
}

TEST_F(StoreAddition, EachStepIsTraced) {
    CertificateAuthority store = authorities();
    const std::string path = source(pem("device"));
    const std::string task = "Add certificate inside ca for " + service_;
    const std::string traces = tracesOf([&] { store.add(path); });
    EXPECT_EQ(traces, task +
                          "\n"
                          " -> Load the certificate...\n"
                          " -> Check the certificate...\n"
                          " -> Get the certificate name...\n"
                          " -> Copy the certificate...\n"
                          " -> Create Info file...\n"
                          " -> Create details file...\n"
                          " -> Update list and map...\n" +
                          task + "... Done.\n");
}

TEST_F(StoreAddition, ThirdAuthorityOfAtMostTwoIsRefused) {
    configure("maximumCA 2\n");
    CertificateAuthority store = authorities();
    store.add(source(pem("one")));
    store.add(source(pem("two")));
    EXPECT_EQ(failureToAdd(store, source(pem("three"))), full("ca"));
    // The room is looked at before the file.
    EXPECT_EQ(failureToAdd(store, "/nowhere/certificate"), full("ca"));
}

TEST_F(StoreAddition, SecondClientOfAtMostOneIsRefused) {
    configure("maximumCA 5\nmaximumTrustedClients 1\n");
    TrustedCertificate store = clients();
    store.add(source(pem("one", false)));
    EXPECT_EQ(failureToAdd(store, source(pem("two", false))), full("client"));
}

TEST_F(StoreAddition, RoomThatARevocationMadeIsUsed) {
    configure("maximumCA 1\n");
    CertificateAuthority store = authorities();
    const std::string id = store.add(source(pem("one")));
    EXPECT_EQ(failureToAdd(store, source(pem("two"))), full("ca"));
    store.revoke(id);
    EXPECT_EQ(failureToAdd(store, source(pem("two"))), "no exception");
}

TEST_F(StoreAddition, MaximumOfZeroIsNoLimit) {
    configure("maximumCA 0\n");
    CertificateAuthority store = authorities();
    for (const char* name : {"one", "two", "three", "four"})
        EXPECT_EQ(failureToAdd(store, source(pem(name))), "no exception");
}

TEST_F(StoreAddition, MissingSourceIsRefused) {
    CertificateAuthority store = authorities();
    EXPECT_EQ(failureToAdd(store, "/nowhere/certificate"),
              "1 Certificate does not exist for /nowhere/certificate");
    EXPECT_EQ(failureToAdd(store, ""), "1 Certificate does not exist for ");
}

TEST_F(StoreAddition, SourceThatIsNoFileIsRefusedWithoutBlocking) {
    CertificateAuthority store = authorities();
    const std::string fifo = sandbox_.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(failureToAdd(store, fifo),
              "1 Impossible to read the file '" + fifo + "': It is not a regular file");
    EXPECT_EQ(failureToAdd(store, sandbox_.path()),
              "1 Impossible to read the file '" + sandbox_.path() + "': It is not a regular file");
}

TEST_F(StoreAddition, SourceLargerThanTheLimitIsRefused) {
    CertificateAuthority store = authorities();
    const std::string certificate = pem("device");
    EXPECT_EQ(failureToAdd(store, source(certificate + std::string((128U << 10) - certificate.size(), '#'))),
              "no exception");
    const std::string path = source(certificate + std::string((128U << 10) - certificate.size() + 1, '#'));
    EXPECT_EQ(failureToAdd(store, path),
              "1 Impossible to read the file '" + path + "': It is larger than 131072 bytes");
}

TEST_F(StoreAddition, SourceThatTheDaemonMayNotReadIsRefused) {
    CertificateAuthority store = authorities();
    const std::string path = sandbox_.write("secret", pem("device"), 0600);
    const std::string failure = testsupport::inChild([&] {
        testsupport::becomeNobody();
        return failureToAdd(store, path);
    });
    EXPECT_EQ(failure, "1 Impossible to read the file '" + path + "': Permission denied");
}

TEST_F(StoreAddition, SourceThatHoldsNoCertificateIsRefused) {
    TrustedCertificate store = clients();
    for (const char* content :
         {"", "not a certificate\n", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"}) {
        const std::string path = source(content);
        EXPECT_EQ(failureToAdd(store, path), "9 Failed to read certificate from file: " + path) << content;
    }
}

TEST_F(StoreAddition, CertificateThatIsNoAuthorityIsRefusedByTheAuthoritiesOnly) {
    CertificateAuthority ca = authorities();
    TrustedCertificate client = clients();
    const std::string path = source(pem("device", false));
    EXPECT_EQ(failureToAdd(ca, path), "9 No valid certificate found.");
    EXPECT_EQ(failureToAdd(client, path), "no exception");
    EXPECT_EQ(failureToAdd(client, source(pem("authority", true))), "no exception");
}

TEST_F(StoreAddition, SourceWithAPrivateKeyIsRefusedAndNotCopied) {
    TrustedCertificate store = clients();
    const auto issued = testsupport::makeCertificate(testsupport::CertificateOptions());
    EXPECT_EQ(failureToAdd(store, source(issued.certificatePem + issued.keyPem)),
              "9 The certificate file holds a private key.");
    EXPECT_EQ(failureToAdd(store, source(issued.keyPem + issued.certificatePem)),
              "9 The certificate file holds a private key.");
    EXPECT_FALSE(Sandbox::exists(paths("client").certPath("7abc528d.0")));
    const std::string keyAlone = source(issued.keyPem);
    EXPECT_EQ(failureToAdd(store, keyAlone), "9 Failed to read certificate from file: " + keyAlone);
}

TEST_F(StoreAddition, RefusedAdditionLeavesTheStoreAsItWas) {
    CertificateAuthority store = authorities();
    failureToAdd(store, source(pem("device", false)));
    EXPECT_EQ(Sandbox::read(paths("ca").listPath()), "");
    EXPECT_FALSE(Sandbox::exists(paths("ca").certPath("7abc528d.0")));
    EXPECT_FALSE(Sandbox::exists(paths("ca").certInfoPath("7abc528d.0")));
}

TEST_F(StoreAddition, SameFileASecondTimeIsRefused) {
    CertificateAuthority store = authorities();
    const std::string path = source(pem("device"));
    store.add(path);
    EXPECT_EQ(failureToAdd(store, path), present("ca"));
    EXPECT_EQ(Sandbox::read(paths("ca").listPath()), "7abc528d.0\n");
}

TEST_F(StoreAddition, SameCertificateInOtherClothesIsRefused) {
    TrustedCertificate store = clients();
    const std::string certificate = pem("device");
    store.add(source(certificate));
    EXPECT_EQ(failureToAdd(store, source(withCarriageReturns(certificate))), present("client"));
    EXPECT_EQ(failureToAdd(store, source("Root of everything\n" + certificate)), present("client"));
    EXPECT_EQ(failureToAdd(store, source(certificate + pem("another"))), present("client"));
}

TEST_F(StoreAddition, SameCertificateInTheOtherStoreIsNoObstacle) {
    const std::string path = source(pem("device"));
    authorities().add(path);
    EXPECT_EQ(clients().add(path), "7abc528d.0");
}

TEST_F(StoreAddition, TwoCertificatesOfOneNameGetTheSuffixesZeroAndOne) {
    CertificateAuthority store = authorities();
    const std::string first = pem("device");
    const std::string second = pem("device");
    EXPECT_EQ(store.add(source(first)), "7abc528d.0");
    EXPECT_EQ(store.add(source(second)), "7abc528d.1");
    EXPECT_EQ(Sandbox::read(paths("ca").certPath("7abc528d.0")), first);
    EXPECT_EQ(Sandbox::read(paths("ca").certPath("7abc528d.1")), second);
    EXPECT_EQ(Sandbox::read(paths("ca").cnMapPath()), "7abc528d.0 device\n7abc528d.1 device\n");
}

TEST_F(StoreAddition, EleventhCertificateOfOneNameIsRefused) {
    TrustedCertificate store = clients();
    std::string last;
    for (char suffix = '0'; suffix <= '9'; ++suffix) {
        last = pem("device");
        EXPECT_EQ(store.add(source(last)), std::string("7abc528d.") + suffix);
    }
    EXPECT_EQ(failureToAdd(store, source(pem("device"))),
              "42 Reached maximum limit of certificates with same hash.");
    EXPECT_EQ(failureToAdd(store, source(last)), present("client"));
    EXPECT_EQ(failureToAdd(store, source(pem("another"))), "no exception");
}

TEST_F(StoreAddition, SmallestFreeSuffixIsTaken) {
    TrustedCertificate store = clients();
    for (int i = 0; i < 4; ++i)
        store.add(source(pem("device")));
    store.revoke(std::vector<std::string>{"7abc528d.2", "7abc528d.1"});
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.1");
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.2");
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.4");
}

TEST_F(StoreAddition, WithUniquenessASecondCertificateOfOneNameTakesThePlaceOfTheFirst) {
    configure("uniqueCaByCn yes\n");
    CertificateAuthority store = authorities();
    store.add(source(pem("device")));
    const std::string second = pem("device");
    EXPECT_EQ(store.add(source(second)), "7abc528d.0");
    const auto ca = paths("ca");
    EXPECT_EQ(Sandbox::read(ca.certPath("7abc528d.0")), second);
    EXPECT_EQ(Sandbox::read(ca.certDetailsPath("7abc528d.0")),
              keywarden::printedText(X509_T::fromPem(second)));
    EXPECT_EQ(Sandbox::read(ca.listPath()), "7abc528d.0\n");
    EXPECT_FALSE(Sandbox::exists(ca.certPath("7abc528d.1")));
}

TEST_F(StoreAddition, WithUniquenessTheSameCertificateIsRefused) {
    configure("maximumCA 0\nuniqueTrustedClientByCn yes\n");
    TrustedCertificate store = clients();
    const std::string path = source(pem("device"));
    store.add(path);
    EXPECT_EQ(failureToAdd(store, path), present("client"));
}

TEST_F(StoreAddition, UniquenessOfOneStoreIsNotThatOfTheOther) {
    configure("uniqueCaByCn yes\n");
    TrustedCertificate store = clients();
    store.add(source(pem("device")));
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.1");
}

TEST_F(StoreAddition, CertificateWhoseFileWasDamagedCanBeAddedAgain) {
    configure("uniqueCaByCn yes\n");
    CertificateAuthority store = authorities();
    const std::string certificate = pem("device");
    store.add(source(certificate));
    std::filesystem::resize_file(paths("ca").certPath("7abc528d.0"), 10);
    EXPECT_EQ(store.add(source(certificate)), "7abc528d.0");
    EXPECT_EQ(Sandbox::read(paths("ca").certPath("7abc528d.0")), certificate);
}

TEST_F(StoreAddition, FilesOfOtherCertificatesAreLeftAlone) {
    CertificateAuthority store = authorities();
    const std::string id = store.add(source(pem("device")));
    const auto ca = paths("ca");
    const auto inode = [](const std::string& path) {
        struct stat info {};
        EXPECT_EQ(::stat(path.c_str(), &info), 0);
        return info.st_ino;
    };
    const auto before =
        std::make_tuple(inode(ca.certPath(id)), inode(ca.certInfoPath(id)), inode(ca.certDetailsPath(id)));
    store.add(source(pem("another")));
    store.add(source(pem("device")));
    EXPECT_EQ(before, std::make_tuple(inode(ca.certPath(id)), inode(ca.certInfoPath(id)),
                                      inode(ca.certDetailsPath(id))));
}

TEST_F(StoreAddition, LineFeedInACommonNameMakesNoNewEntry) {
    TrustedCertificate store = clients();
    const std::string id = store.add(source(pem("a\n00000000.0 forged")));
    EXPECT_EQ(Sandbox::read(paths("client").cnMapPath()), id + " a 00000000.0 forged\n");
}

TEST_F(StoreAddition, CertificateWithoutACommonNameHasAnEmptyOneInTheMap) {
    testsupport::CertificateOptions options;
    options.commonName = "";
    options.organization = "Example";
    TrustedCertificate store = clients();
    const std::string id = store.add(source(testsupport::makeCertificate(options).certificatePem));
    EXPECT_EQ(Sandbox::read(paths("client").cnMapPath()), id + " \n");
}

TEST_F(StoreAddition, CertificateFileThatCannotBeWrittenFails) {
    CertificateAuthority store = authorities();
    std::filesystem::create_directories(paths("ca").certPath("7abc528d.0"));
    const std::string path = paths("ca").certPath("7abc528d.0");
    EXPECT_EQ(runtimeErrorOf([&] { store.add(source(pem("device"))); }),
              "Impossible to put in place '" + path + "': Is a directory");
}

TEST_F(StoreAddition, RecordThatCannotBeWrittenFailsAndTheCertificateStays) {
    CertificateAuthority store = authorities();
    const std::string path = paths("ca").certInfoPath("7abc528d.0");
    std::filesystem::create_directories(path);
    EXPECT_EQ(runtimeErrorOf([&] { store.add(source(pem("device"))); }),
              "Error: Impossible to open " + path + "for writting with error Is a directory");
    EXPECT_TRUE(Sandbox::exists(paths("ca").certPath("7abc528d.0")));
    // It is trusted by whoever reads the folder: so it is listed, counted and can be revoked.
    EXPECT_EQ(Sandbox::read(paths("ca").listPath()), "7abc528d.0\n");
    EXPECT_TRUE(testsupport::CapturedLog::contains(
        keywarden::SeverityError,
        "The certificate '7abc528d.0' could not be added as a whole inside ca for " + service_ +
            ", but it is stored there and counts. Revoke it if it is not "
            "wanted."))
        << testsupport::CapturedLog::dump();
    EXPECT_EQ(store.toBeTold(), (std::vector<std::vector<std::string>>{{"new", "7abc528d.0"}}));
    std::filesystem::remove(path);
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.1");
    EXPECT_TRUE(store.revoke(std::string("7abc528d.0")));
    EXPECT_FALSE(Sandbox::exists(paths("ca").certPath("7abc528d.0")));
}

TEST_F(StoreAddition, DetailsThatCannotBeWrittenFail) {
    CertificateAuthority store = authorities();
    const std::string path = paths("ca").certDetailsPath("7abc528d.0");
    std::filesystem::create_directories(path);
    EXPECT_EQ(runtimeErrorOf([&] { store.add(source(pem("device"))); }),
              "Not able to open details file '" + path + "' for writing for service '" + service_ + "'.");
    EXPECT_TRUE(Sandbox::exists(paths("ca").certInfoPath("7abc528d.0")));
}

TEST_F(StoreAddition, ListThatCannotBeWrittenFails) {
    CertificateAuthority store = authorities();
    std::filesystem::remove(paths("ca").listPath());
    std::filesystem::create_directories(paths("ca").listPath());
    EXPECT_EQ(runtimeErrorOf([&] { store.add(source(pem("device"))); }),
              "Impossible to open the list file " + paths("ca").listPath() + ".");
}

TEST_F(StoreAddition, FolderThatWasRemovedAndReplacedByALinkIsMadeAgain) {
    CertificateAuthority store = authorities();
    const std::string folder = paths("ca").tmpDirectoryPath();
    std::filesystem::remove_all(folder);
    ASSERT_EQ(::symlink(sandbox_.path().c_str(), folder.c_str()), 0);
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.0");
    EXPECT_FALSE(Sandbox::exists(sandbox_.path("7abc528d.0.info")));
    EXPECT_FALSE(std::filesystem::is_symlink(folder));
    expectRights(folder, 0711);
    expectRights(paths("ca").certInfoPath("7abc528d.0"), 0644);
}

TEST_F(StoreAddition, FoldersThatAStartCouldNotMakeAreMadeByTheNextCommand) {
    std::string folder = paths("ca").certificateDirectoryPath();
    folder.pop_back();
    std::ofstream(folder) << "in the way";
    CertificateAuthority store = authorities();
    EXPECT_ANY_THROW(store.add(source(pem("device"))));
    std::filesystem::remove(folder);
    EXPECT_EQ(store.add(source(pem("device"))), "7abc528d.0");
    EXPECT_EQ(Sandbox::read(paths("ca").listPath()), "7abc528d.0\n");
}

}  // namespace
