// The server certificate: its pair, the active pointer and the pending request, with a fault at every call.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "FaultRun.h"
#include "callbacks/ServiceCallbacks.h"
#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "server/Server.h"
#include "support/Tools.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/TestDevice.h"
#include "x509/Inspection.h"

namespace {

using faults::runAllFaults;
using faults::Scenario;
using keywarden::InternalCertificatesAccessor;
using keywarden::NetworkInfo;
using keywarden::Server;
using keywarden::ServiceConfiguration;
using testsupport::IssuedCertificate;
using testsupport::Sandbox;
using testsupport::TestDevice;

constexpr const char* kService = "web";
constexpr const char* kAuthority = "pkiroot";

class SilentOwner : public keywarden::ServiceCallbacks {
  public:
    void started() override {}
    void stopped() override {}
    void allStarted() override {}
    void newGeneratedCertificate(const std::string&) override {}
    void updateValidityGeneratedCertificate(int, int) override {}
    void newExternalCertificate(const std::string&, const std::string&) override {}
    void revokedExternalCertificate(const std::string&, const std::string&) override {}
    void revokedExternalCertificate(const std::string&, const std::vector<std::string>&) override {}
};

/// A service's server with its configuration; starting it is its construction.
class RunningServer {
  public:
    explicit RunningServer(const std::string& service)
        : configuration_(service), server_(configuration_, std::make_shared<SilentOwner>()) {}
    Server& operator*() { return server_; }
    Server* operator->() { return &server_; }

  private:
    ServiceConfiguration configuration_;
    Server server_;
};

IssuedCertificate issued(const std::string& commonName, bool ca = false) {
    testsupport::CertificateOptions options;
    options.commonName = commonName;
    options.ca = ca;
    return testsupport::makeCertificate(options);
}

void install(Server& server, const IssuedCertificate& pair) {
    const std::string keyPath = TestDevice::get().sandbox().write("pair.key", pair.keyPem, 0600);
    server.installCertificate(keywarden::X509_T::fromPem(pair.certificatePem), keywarden::EVP_PKEY_T(keyPath),
                              NetworkInfo(std::string("/nonexistent")));
}

class ServerFaults : public testing::Test {
  protected:
    ServerFaults() {
        ::umask(0);
        settings_ =
            TestDevice::get().sandbox().write("settings.cnf", "CONFIG_KEY PRIME256V1\nCN unit.example\n");
    }

    void configure(const std::string& lines = "", const std::string& service = kService) const {
        TestDevice::get().writeService(
            service, "server yes\nmanagmentGroup daemon\nkeyGroup adm\ncnfFile " + settings_ + "\n" + lines);
    }

    static void makeFolders(const std::string& service) {
        for (const std::string& root :
             {TestDevice::get().keywardDirectory(), TestDevice::get().pipesDirectory()})
            keywarden::Tools::createDirectory(root + "/" + service, 0711);
    }

    [[nodiscard]] std::function<void()> oldPairInForce() const {
        return [this] {
            makeFolders(kService);
            install(*RunningServer(kService), old_);
        };
    }

    /// Whether the certificate in force is the old one, the given new one or a third, and what is wrong.
    [[nodiscard]] std::string startAndLook(const std::string& newPem) const {
        RunningServer server(kService);
        const InternalCertificatesAccessor store(kService, "server");
        const std::string id = store.getActive();
        return stateOf(store, id, newPem) + "\n" + faultsOf(store, id);
    }

    IssuedCertificate old_ = issued("old.example");

  private:
    [[nodiscard]] std::string stateOf(const InternalCertificatesAccessor& store, const std::string& id,
                                      const std::string& newPem) const {
        if (id.empty() || !Sandbox::exists(store.certPath(id)))
            return "none";
        const std::string pem = Sandbox::read(store.certPath(id));
        if (pem == old_.certificatePem + "\n")
            return "old";
        return newPem.empty() || pem == newPem + "\n" ? "new" : "third";
    }

    static std::string faultsOf(const InternalCertificatesAccessor& store, const std::string& id) {
        std::string faults;
        const std::string folder = store.certificateDirectoryPath();
        for (const std::string& name : faults::namesIn(folder)) {
            if (name == id || name == ".cacheddata")
                continue;
            if (name != id + ".key")
                faults += "neither pointed at nor removed: " + name + "\n";
            else if ((Sandbox::mode(folder + name) & 0137U) != 0)
                faults += "the key can be read by others\n";
        }
        for (const std::string& path :
             {store.certificateDirectoryPath(), store.cachedDirectoryPath(), store.tmpDirectoryPath()})
            faults += faults::leftoversIn(path);
        if (Sandbox::exists(store.csrPath()) || Sandbox::exists(store.csrKeyPath()))
            faults += "a pending request has survived\n";
        return faults + pairFaultsOf(store, id);
    }

    static std::string pairFaultsOf(const InternalCertificatesAccessor& store, const std::string& id) {
        const bool hasCertificate = !id.empty() && Sandbox::exists(store.certPath(id));
        const bool hasKey = !id.empty() && Sandbox::exists(store.certKeyPath(id));
        if (!hasCertificate && !hasKey)
            return {};
        try {
            if (!keywarden::keyMatchesCertificate(keywarden::EVP_PKEY_T(store.certKeyPath(id)),
                                                  keywarden::X509_T(store.certPath(id))))
                return "key and certificate do not belong together\n";
            for (const std::string& path :
                 {store.certInfoPath(id), store.certDetailsPath(id), store.certNetworkPath(id)})
                if (!Sandbox::exists(path))
                    return "missing: " + path + "\n";
        } catch (const std::exception& error) {
            return std::string("the pair cannot be read: ") + error.what() + "\n";
        }
        return {};
    }

    std::string settings_;
};

using Operation = std::function<void()>;

TEST_F(ServerFaults, FirstInstallationByTheStart) {
    configure("selfSignedGeneration yes\n");
    Scenario scenario;
    scenario.name = "first installation";
    scenario.prepare = [] { makeFolders(kService); };
    scenario.begin = [] { return Operation([] { RunningServer{kService}; }); };
    scenario.restart = [this] { return startAndLook(""); };
    scenario.unconfirmed = {"new"};
    runAllFaults(scenario);
}

TEST_F(ServerFaults, FirstInstallationOfAGivenPair) {
    configure();
    const IssuedCertificate pair = issued("new.example");
    Scenario scenario;
    scenario.name = "start and installation of a given pair";
    scenario.prepare = [] { makeFolders(kService); };
    scenario.begin = [&pair] { return Operation([&pair] { install(*RunningServer(kService), pair); }); };
    scenario.restart = [this, &pair] { return startAndLook(pair.certificatePem); };
    scenario.unconfirmed = {"none", "new"};
    runAllFaults(scenario);
}

TEST_F(ServerFaults, InstallationWithANewSubject) {
    configure("selfSignedGeneration yes\n");
    const IssuedCertificate pair = issued("new.example");
    Scenario scenario;
    scenario.name = "installation, new subject";
    scenario.prepare = oldPairInForce();
    scenario.begin = [&pair] {
        const auto server = std::make_shared<RunningServer>(kService);
        return Operation([server, &pair] { install(**server, pair); });
    };
    scenario.restart = [this, &pair] { return startAndLook(pair.certificatePem); };
    runAllFaults(scenario);
}

TEST_F(ServerFaults, InstallationWithTheSameSubject) {
    configure("selfSignedGeneration yes\n");
    const IssuedCertificate pair = issued("old.example");
    Scenario scenario;
    scenario.name = "installation, same subject";
    scenario.prepare = oldPairInForce();
    scenario.begin = [&pair] {
        const auto server = std::make_shared<RunningServer>(kService);
        return Operation([server, &pair] { install(**server, pair); });
    };
    scenario.restart = [this, &pair] { return startAndLook(pair.certificatePem); };
    runAllFaults(scenario);
}

TEST_F(ServerFaults, RequestCreation) {
    configure();
    Scenario scenario;
    scenario.name = "request creation";
    scenario.prepare = oldPairInForce();
    scenario.begin = [] {
        const auto server = std::make_shared<RunningServer>(kService);
        (*server)->createCsr();
        return Operation([server] { (*server)->createCsr(); });
    };
    scenario.restart = [this] { return startAndLook("none"); };
    // A request does not outlive a start, finished or not; the certificate in force is never touched.
    scenario.unconfirmed = scenario.confirmed = {"old"};
    runAllFaults(scenario);
}

TEST_F(ServerFaults, Apply) {
    configure();
    const IssuedCertificate issuer = issued("issuer.example", true);
    Scenario scenario;
    scenario.name = "apply";
    scenario.prepare = oldPairInForce();
    scenario.begin = [&issuer] {
        const auto server = std::make_shared<RunningServer>(kService);
        (*server)->createCsr();
        const InternalCertificatesAccessor store(kService, "server");
        const std::string path = TestDevice::get().sandbox().write(
            "certified.pem", testsupport::certifyRequest(Sandbox::read(store.csrPath()), issuer));
        return Operation([server, path] { (*server)->applyCrt(path); });
    };
    scenario.restart = [this] { return startAndLook(""); };
    runAllFaults(scenario);
}

TEST_F(ServerFaults, CaSignedGeneration) {
    configure("CASignedGeneration yes\nCAServiceId " + std::string(kAuthority) + "\nCASignedValidity 30\n");
    configure("", kAuthority);
    const IssuedCertificate authority = issued("root.example", true);
    Scenario scenario;
    scenario.name = "CA-signed";
    scenario.prepare = [&] {
        makeFolders(kAuthority);
        install(*RunningServer(kAuthority), authority);
        oldPairInForce()();
    };
    scenario.begin = [] {
        const auto server = std::make_shared<RunningServer>(kService);
        return Operation([server] { (*server)->createAndApplyCASigned(); });
    };
    scenario.restart = [this] { return startAndLook(""); };
    runAllFaults(scenario);
}

TEST_F(ServerFaults, Revocation) {
    configure();
    Scenario scenario;
    scenario.name = "revoke of the server certificate";
    scenario.prepare = oldPairInForce();
    scenario.begin = [] {
        const auto server = std::make_shared<RunningServer>(kService);
        return Operation([server] { (*server)->revokeCrt(); });
    };
    scenario.restart = [this] { return startAndLook("none"); };
    scenario.unconfirmed = {"old", "none"};
    scenario.confirmed = {"none"};
    runAllFaults(scenario);
}

TEST_F(ServerFaults, StartThatFinishesAnInstallation) {
    configure();
    const IssuedCertificate pair = issued("old.example");
    Scenario scenario;
    scenario.name = "start after an interrupted installation";
    scenario.prepare = [&] {
        const std::string cached = TestDevice::get().keywardDirectory() + "/web/server/.cacheddata/";
        oldPairInForce()();
        const InternalCertificatesAccessor store(kService, "server");
        const std::string keyPath = store.certKeyPath(store.getActive());
        const std::string key = Sandbox::read(keyPath);
        // The key is in its place, the certificate is not, and the journal stands.
        for (unsigned call = 1; Sandbox::read(keyPath) == key || !Sandbox::exists(cached + ".journal");
             ++call) {
            const pid_t child = ::fork();
            if (child == 0) {
                RunningServer server(kService);
                faults::Plan plan;
                plan.kind = faults::Plan::Kind::KillAfter;
                plan.call = call;
                faults::arm(TestDevice::get().keywardDirectory(), TestDevice::get().pipesDirectory(), plan);
                install(*server, pair);
                ::_exit(0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            if (WEXITSTATUS(status) == 0)
                throw std::runtime_error("the installation was never cut short between its moves");
        }
    };
    scenario.begin = [] { return Operation([] { RunningServer{kService}; }); };
    scenario.restart = [this, &pair] { return startAndLook(pair.certificatePem); };
    scenario.unconfirmed = {"new"};
    runAllFaults(scenario);
}

}  // namespace
