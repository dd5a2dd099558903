#include "ctl/ServiceView.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "ctl/NamesCheck.h"
#include "ctl/Problem.h"
#include "ctl/Stores.h"
#include "network/NetworkConfiguration.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/TestClock.h"
#include "testsupport/TestDevice.h"

using namespace keywardctl;
using keywarden::X509_T;
using testsupport::CertificateOptions;
using testsupport::IssuedCertificate;
using testsupport::makeCertificate;
using testsupport::TestDevice;

namespace {

constexpr const char* kId = "0a1b2c3d.0";

class View : public testing::Test {
  protected:
    void install(const std::string& service, const std::string& pem, const std::string& id = kId) const {
        const std::string store = "keyward/" + service + "/server/";
        device.sandbox().write(store + ".cacheddata/active.txt", id);
        device.sandbox().write(store + id, pem + "\n");
    }

    void trust(const std::string& service, const std::string& store, const std::string& id,
               const std::string& pem) const {
        device.sandbox().write("keyward/" + service + "/" + store + "/" + id, pem);
    }

    void network(const std::string& printed) const {
        device.setNetwork(printed);
        keywarden::NetworkConfiguration::getInstance().reload();
    }

    [[nodiscard]] NamesView names(const std::string& settings, const CertificateOptions& options) const {
        device.writeService("names", "cnfFile /dev/null\n" + settings);
        const X509_T certificate = X509_T::fromPem(makeCertificate(options).certificatePem);
        return compareNames(keywarden::ServiceConfiguration("names"),
                            keywarden::alternativeNamesOf(certificate));
    }

    const TestDevice& device = TestDevice::get();
};

CertificateOptions named(const std::string& name) {
    CertificateOptions options;
    options.commonName = name;
    return options;
}

TEST_F(View, TheIssuerIsTheServiceWhoseKeySigned) {
    CertificateOptions root = named("Root");
    root.ca = true;
    const IssuedCertificate signer = makeCertificate(root);
    const IssuedCertificate namesake = makeCertificate(root);
    install("kindroot", signer.certificatePem);
    install("kindfalse", namesake.certificatePem);
    const X509_T own = X509_T::fromPem(makeCertificate(named("web"), &signer).certificatePem);
    std::string issuedBy;
    EXPECT_EQ(kindOf(own, "kindweb", {"kindfalse", "kindmissing", "kindroot"}, issuedBy), Kind::LocalCA);
    EXPECT_EQ(issuedBy, "kindroot");
    issuedBy.clear();
    EXPECT_EQ(kindOf(own, "kindweb", {"kindfalse"}, issuedBy), Kind::External);
    EXPECT_EQ(kindOf(own, "kindroot", {"kindroot"}, issuedBy), Kind::External);
    EXPECT_EQ(issuedBy, "");
    const X509_T self = X509_T::fromPem(signer.certificatePem);
    EXPECT_EQ(kindOf(self, "kindweb", {"kindroot"}, issuedBy), Kind::SelfSigned);
}

TEST_F(View, AServiceWithEverything) {
    device.writeService("full", "cnfFile /dev/null\nca yes\ntrustedClients yes\n");
    install("full", makeCertificate(named("full")).certificatePem);
    device.sandbox().write("keyward/full/server/.cacheddata/csr.csr", "any");
    device.sandbox().write("keyward/full/ca/.cacheddata/list.txt", "0a1b2c3d.0\n0a1b2c3d.1\nno id\n");
    const ServiceView view = viewOf(Device(), "full");
    EXPECT_EQ(view.problems, std::vector<std::string>());
    ASSERT_TRUE(view.certificate.has_value());
    EXPECT_EQ(view.certificate->id, kId);
    EXPECT_EQ(view.certificate->kind, Kind::SelfSigned);
    EXPECT_EQ(view.certificate->facts.notAfter, 2208988800);
    EXPECT_EQ(view.requestPending, std::optional<bool>(true));
    EXPECT_EQ(view.caCertificates, std::optional<std::int64_t>(2));
    EXPECT_EQ(view.clientCertificates, std::optional<std::int64_t>(0));
}

TEST_F(View, ABrokenConfigurationDoesNotHideTheCertificate) {
    device.writeService("broken", "selfSignedGeneration yes\n");
    install("broken", makeCertificate(named("broken")).certificatePem);
    const ServiceView view = viewOf(Device(), "broken");
    EXPECT_TRUE(view.certificate.has_value());
    EXPECT_EQ(view.problems,
              std::vector<std::string>{"Invalid config parameter: cnf File or cnfFile must be defined"});
}

TEST_F(View, AnIdThatIsNoneIsNeverUsedAsAPath) {
    install("crooked", makeCertificate(named("x")).certificatePem, "../../x");
    EXPECT_FALSE(activeCertificateOf("crooked").has_value());
    install("revoked", makeCertificate(named("x")).certificatePem);
    std::filesystem::remove(device.keywardDirectory() + "/revoked/server/" + kId);
    EXPECT_FALSE(activeCertificateOf("revoked").has_value());
    EXPECT_FALSE(activeCertificateOf("never").has_value());
    install("garbled", "no certificate");
    EXPECT_THROW((void)activeCertificateOf("garbled"), Problem);
}

TEST_F(View, OnlyListedIdsAreStored) {
    trust("trusting", "ca", "0a1b2c3d.0", "text");
    trust("trusting", "ca", "0a1b2c3d.1", "unlisted");
    device.sandbox().write("keyward/trusting/ca/.cacheddata/list.txt", "0a1b2c3d.0\n");
    EXPECT_EQ(storedPem("trusting", "ca", "0a1b2c3d.0"), "text");
    EXPECT_THROW((void)storedPem("trusting", "ca", "0a1b2c3d.1"), Problem);
    EXPECT_THROW((void)storedPem("trusting", "ca", "../server/x"), Problem);
    EXPECT_EQ(storedIds("trusting", "client"), std::vector<std::string>());
}

TEST_F(View, NamesMatchWhateverTheCertificateHasBeyond) {
    network("interface.0 eth0\nipv4.0.0 10.0.0.5\nipv6.0.0 FD00:0:0::5\nfqdn.0 unit.test\n");
    const std::string all =
        "includeFQDN yes\nnetworkInterface.0 eth0\nincludeIPv4.0 yes\nincludeIPv6.0 yes\n";
    CertificateOptions options;
    options.dns = {"unit.test", "10.0.0.5", "older.test"};
    options.ips = {"10.0.0.5", "fd00::5", "10.0.0.4"};
    EXPECT_EQ(names(all, options).state, NamesView::State::Matching);
    options.dns = {"10.0.0.5"};
    options.ips = {"fd00::5"};
    const NamesView differing = names(all, options);
    EXPECT_EQ(differing.state, NamesView::State::Differing);
    EXPECT_EQ(differing.missing, (std::vector<std::string>{"unit.test", "10.0.0.5"}));
    EXPECT_EQ(names("networkInterface.0 eth0\nincludeIPv6.0 yes\n", options).state,
              NamesView::State::Matching);
}

TEST_F(View, AServiceThatWantsNoNamesAlwaysMatches) {
    network("");
    EXPECT_EQ(names("", CertificateOptions()).state, NamesView::State::Matching);
}

TEST_F(View, ANetworkThatNobodyTellsIsUnknown) {
    network("");
    EXPECT_EQ(names("includeFQDN yes\n", CertificateOptions()).state, NamesView::State::Unknown);
    network("interface.0 eth0\n");
    EXPECT_EQ(names("networkInterface.0 eth0\nincludeIPv4.0 yes\n", CertificateOptions()).state,
              NamesView::State::Matching);
}

TEST_F(View, FactsOfACertificate) {
    CertificateOptions options = named("device");
    options.notBefore = 1577836800;
    options.notAfter = 2208988800;
    options.dns = {"a.test"};
    options.ips = {"10.0.0.5"};
    const CertificateFacts facts = factsOf(X509_T::fromPem(makeCertificate(options).certificatePem));
    EXPECT_EQ(facts.commonName, "device");
    EXPECT_EQ(facts.key, "EC 256 bits");
    EXPECT_EQ(facts.fingerprint.size(), 64U);
    const std::string text = factsText(facts, 2208988800 - 86400);
    EXPECT_NE(
        text.find("not before:  2020-01-01 00:00:00 UTC\nnot after:   2040-01-01 00:00:00 UTC (1 day left)\n"
                  "CA:          no\nnames:       DNS:a.test, IP:10.0.0.5\n"),
        std::string::npos)
        << text;
    EXPECT_NE(factsText(facts, 2208988801).find("(ended)"), std::string::npos);
}

TEST_F(View, FactsOfARequest) {
    CertificateOptions options = named("device");
    options.dns = {"a.test"};
    options.ips = {"fd00::5"};
    const std::string path = device.sandbox().write("some.csr", testsupport::makeRequest(options).requestPem);
    const RequestFacts facts = requestFactsOf(path);
    EXPECT_EQ(facts.subject, "CN=device");
    EXPECT_EQ(facts.key, "EC 256 bits");
    EXPECT_EQ(namesText(facts.names), "DNS:a.test, IP:fd00::5");
    const std::string none = device.sandbox().write("none.csr", "x");
    EXPECT_THROW((void)requestFactsOf(none), Problem);
}

}  // namespace
