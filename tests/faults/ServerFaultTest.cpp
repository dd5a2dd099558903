// The server certificate: its pair, the active pointer and the pending request, with a fault at every call.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>

#include "FaultRun.h"
#include "Told.h"
#include "callbacks/Delivery.h"
#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "server/Server.h"
#include "support/Tools.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/SilentCallbacks.h"
#include "testsupport/TestDevice.h"
#include "x509/Inspection.h"

namespace {

using faults::runAllFaults;
using faults::runFaultsOfRecovery;
using faults::Running;
using faults::runSecondFaults;
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

/// Keeps what it is told, by the certificate that is in its place at that moment.
class RecordingOwner : public testsupport::SilentCallbacks {
  public:
    explicit RecordingOwner(std::string service) : service_(std::move(service)) {}
    void newGeneratedCertificate(const std::string& id) override {
        const InternalCertificatesAccessor store(service_, "server");
        if (service_ == kService && Sandbox::exists(store.certPath(id)))
            faults::recordTold(faults::eventOf("new", Sandbox::read(store.certPath(id))));
    }

  private:
    std::string service_;
};

/// Every event is cut off, by a stop of the daemon.
class CutOffOwner : public RecordingOwner, public keywarden::Delivery {
  public:
    CutOffOwner() : RecordingOwner("") {}
    [[nodiscard]] bool lastEventWasDelivered() const override { return false; }
};

/// A service's server with its configuration; starting it is its construction.
class RunningServer {
  public:
    explicit RunningServer(const std::string& service)
        : RunningServer(service, std::make_shared<RecordingOwner>(service)) {}
    RunningServer(const std::string& service, std::shared_ptr<keywarden::ServiceCallbacks> owner)
        : configuration_(service), server_(configuration_, std::move(owner)) {}
    Server& operator*() { return server_; }
    Server* operator->() { return &server_; }

  private:
    ServiceConfiguration configuration_;
    Server server_;
};
using ServerPtr = std::shared_ptr<RunningServer>;

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

constexpr unsigned kPairsOfRecovery = 101;

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
        const RunningServer server(kService);
        const InternalCertificatesAccessor store(kService, "server");
        const std::string id = store.getActive();
        const std::string state = stateOf(store, id, newPem);
        std::string faults = faultsOf(store, id);
        // Whatever has taken the old one's place, the owner uses it by now.
        if (state != "old" && state != "none")
            faults += faults::untold(faults::eventOf("new", Sandbox::read(store.certPath(id))));
        return state + "\n" + faults;
    }

    /// A scenario whose new certificate is the given one, or any other than the old one.
    [[nodiscard]] Scenario scenario(const std::string& name, const std::string& newPem) const {
        Scenario made;
        made.name = name;
        made.prepare = oldPairInForce();
        made.start = [this] { return starting(); };
        made.restart = [this, newPem] { return startAndLook(newPem); };
        return made;
    }

    /// What a server that runs already does.
    [[nodiscard]] Running running(const ServerPtr& server, std::function<void(Server&)> operation) const {
        return {[server, operation = std::move(operation)] { operation(**server); },
                [this, server](unsigned) { return examine(*server); }};
    }

    /// A start, and perhaps more.
    [[nodiscard]] Running starting(std::function<void(Server&)> operation = {}) const {
        const auto server = std::make_shared<ServerPtr>();
        return {[server, operation = std::move(operation)] {
                    *server = std::make_shared<RunningServer>(kService);
                    if (operation)
                        operation(***server);
                },
                [this, server](unsigned) { return *server ? examine(**server) : std::string(); }};
    }

    /// After a failure, in the process that goes on.
    [[nodiscard]] std::string examine(RunningServer& server) const {
        const InternalCertificatesAccessor store(kService, "server");
        if (!isPairWhole(store))
            server->checkTimeValidity();
        std::string faults;
        if (!isPairWhole(store))
            faults += "the pair is none, also after a check\n";
        faults += recordFaultsOf(store, server);
        install(*server, next_);
        if (stateOf(store, store.getActive(), next_.certificatePem) != "new")
            faults += "the next installation does not count\n";
        if (!isPairWhole(store))
            faults += "the next installation left no pair\n";
        faults += recordFaultsOf(store, server);
        return faults + faults::untold(faults::eventOf("new", next_.certificatePem + "\n"));
    }

    /// Both files or, of one that was revoked or never there, none.
    static bool isPairWhole(const InternalCertificatesAccessor& store) {
        const std::string id = store.getActive();
        if (id.empty() || (!Sandbox::exists(store.certPath(id)) && !Sandbox::exists(store.certKeyPath(id))))
            return true;
        try {
            return keywarden::keyMatchesCertificate(keywarden::EVP_PKEY_T(store.certKeyPath(id)),
                                                    keywarden::X509_T(store.certPath(id)));
        } catch (const std::exception&) {
            return false;
        }
    }

    static std::string recordFaultsOf(const InternalCertificatesAccessor& store, RunningServer& server) {
        const std::string id = store.getActive();
        if (id.empty() || !Sandbox::exists(store.certPath(id)))
            return {};
        const bool isSelfSigned = keywarden::isSelfSignedCertificate(keywarden::X509_T(store.certPath(id)));
        const bool isRight = server->isCertificateSelfSigned() == isSelfSigned &&
                             server->isCertificateCASigned() != isSelfSigned;
        return isRight ? std::string() : "the server speaks of another certificate than the one in force\n";
    }

    [[nodiscard]] Running installing(const IssuedCertificate& pair) const {
        const auto server = std::make_shared<RunningServer>(kService);
        return running(server, [&pair](Server& running) { install(running, pair); });
    }

    static bool isInForce(const IssuedCertificate& pair) {
        const InternalCertificatesAccessor store(kService, "server");
        return Sandbox::read(store.certPath(store.getActive())) == pair.certificatePem + "\n";
    }

    /// The key is in its place, the certificate is not, and the journal stands.
    void cutBetweenTheMoves(const IssuedCertificate& pair) const {
        oldPairInForce()();
        const InternalCertificatesAccessor store(kService, "server");
        const std::string keyPath = store.certKeyPath(store.getActive());
        const std::string journal = TestDevice::get().keywardDirectory() + "/web/server/.cacheddata/.journal";
        const std::string key = Sandbox::read(keyPath);
        for (unsigned call = 1; Sandbox::read(keyPath) == key || !Sandbox::exists(journal); ++call) {
            const pid_t child = ::fork();
            if (child == 0) {
                RunningServer server(kService);
                faults::arm(TestDevice::get().keywardDirectory(), TestDevice::get().pipesDirectory(),
                            {{faults::Fault::Kind::KillAfter, call, 0, 0}});
                install(*server, pair);
                ::_exit(0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            if (WEXITSTATUS(status) == 0)
                throw std::runtime_error("the installation was never cut short between its moves");
        }
    }

    IssuedCertificate old_ = issued("old.example");
    IssuedCertificate next_ = issued("next.example");

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
                faults +=
                    (isNamedInWarning(name) ? faults::kNamedInWarning : "neither pointed at nor removed: ") +
                    name + "\n";
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

    static bool isNamedInWarning(const std::string& file) {
        constexpr std::size_t kIdLength = 10;
        const auto lines = testsupport::CapturedLog::lines();
        return std::any_of(lines.begin(), lines.end(), [&file](const testsupport::LogLine& line) {
            return line.severity == keywarden::SeverityWarning &&
                   line.text.find(file.substr(0, kIdLength)) != std::string::npos;
        });
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

TEST_F(ServerFaults, FirstInstallationByTheStart) {
    configure("selfSignedGeneration yes\n");
    Scenario made = scenario("first installation", "");
    made.prepare = [] { makeFolders(kService); };
    made.begin = [this] { return starting(); };
    made.unconfirmed = {"new"};
    runAllFaults(made);
}

TEST_F(ServerFaults, FirstInstallationOfAGivenPair) {
    configure();
    const IssuedCertificate pair = issued("new.example");
    Scenario made = scenario("start and installation of a given pair", pair.certificatePem);
    made.prepare = [] { makeFolders(kService); };
    made.begin = [&] { return starting([&pair](Server& server) { install(server, pair); }); };
    made.unconfirmed = {"none", "new"};
    runAllFaults(made);
}

TEST_F(ServerFaults, InstallationWithANewSubject) {
    configure("selfSignedGeneration yes\n");
    const IssuedCertificate pair = issued("new.example");
    Scenario made = scenario("installation, new subject", pair.certificatePem);
    made.begin = [&] { return installing(pair); };
    runAllFaults(made);
    runSecondFaults(made, faults::moveAfterTheKey);
    runFaultsOfRecovery(made, kPairsOfRecovery);
}

TEST_F(ServerFaults, InstallationWithTheSameSubject) {
    configure("selfSignedGeneration yes\n");
    const IssuedCertificate pair = issued("old.example");
    Scenario made = scenario("installation, same subject", pair.certificatePem);
    made.begin = [&] { return installing(pair); };
    runAllFaults(made);
    runSecondFaults(made, faults::moveAfterTheKey);
    runFaultsOfRecovery(made, kPairsOfRecovery);
}

TEST_F(ServerFaults, InstallationWhoseOwnerIsCutOff) {
    configure();
    const IssuedCertificate pair = issued("new.example");
    Scenario made = scenario("installation, owner cut off", pair.certificatePem);
    made.begin = [&] {
        const auto server = std::make_shared<RunningServer>(kService, std::make_shared<CutOffOwner>());
        return Running{[server, &pair] { install(**server, pair); }, {}};
    };
    runAllFaults(made);
}

TEST_F(ServerFaults, StartThatTellsAndGenerates) {
    configure("selfSignedGeneration yes\n");
    testsupport::CertificateOptions options;
    options.expired = true;
    for (const char* const subject : {"unit.example", "expired.example"}) {
        options.commonName = subject;
        const IssuedCertificate expired = testsupport::makeCertificate(options);
        Scenario made = scenario(std::string("start, event pending, expired ") + subject, "");
        made.prepare = [&] {
            oldPairInForce()();
            RunningServer server(kService, std::make_shared<CutOffOwner>());
            install(*server, expired);
        };
        made.begin = [this] { return starting(); };
        made.restart = [&] {
            const std::string found = startAndLook("");
            return found + faults::untold(faults::eventOf("new", expired.certificatePem + "\n"));
        };
        made.unconfirmed = {"new"};
        runAllFaults(made);
    }
}

// A journal that could not be removed, or whose folders could not be synced, when a second change begins.
TEST_F(ServerFaults, InstallationAfterOneThatStaysJournalled) {
    configure();
    const IssuedCertificate first = issued("first.example");
    const IssuedCertificate second = issued("second.example");
    Scenario made = scenario("installation with a journal standing", second.certificatePem);
    made.begin = [&] {
        const auto server = std::make_shared<RunningServer>(kService);
        return running(server, [&](Server& running) {
            install(running, first);
            faults::mark();
            install(running, second);
        });
    };
    made.restart = [&] {
        const std::string found = startAndLook(second.certificatePem);
        return found.rfind("third", 0) != 0 || isInForce(first) ? found : "a mix\n" + found;
    };
    made.unconfirmed = {"third", "new"};
    runSecondFaults(made, faults::endOfTheJournal);
}

TEST_F(ServerFaults, RequestCreation) {
    configure();
    Scenario made = scenario("request creation", "none");
    made.begin = [this] {
        const auto server = std::make_shared<RunningServer>(kService);
        (*server)->createCsr();
        return running(server, [](Server& running) { running.createCsr(); });
    };
    // A request does not outlive a start, finished or not; the certificate in force is never touched.
    made.unconfirmed = made.confirmed = {"old"};
    runAllFaults(made);
}

TEST_F(ServerFaults, Apply) {
    configure();
    const IssuedCertificate issuer = issued("issuer.example", true);
    Scenario made = scenario("apply", "");
    made.begin = [&] {
        const auto server = std::make_shared<RunningServer>(kService);
        (*server)->createCsr();
        const InternalCertificatesAccessor store(kService, "server");
        const std::string path = TestDevice::get().sandbox().write(
            "certified.pem", testsupport::certifyRequest(Sandbox::read(store.csrPath()), issuer));
        return running(server, [path](Server& running) { running.applyCrt(path); });
    };
    runAllFaults(made);
}

TEST_F(ServerFaults, CaSignedGeneration) {
    configure("CASignedGeneration yes\nCAServiceId " + std::string(kAuthority) + "\nCASignedValidity 30\n");
    configure("", kAuthority);
    const IssuedCertificate authority = issued("root.example", true);
    Scenario made = scenario("CA-signed", "");
    made.prepare = [&] {
        makeFolders(kAuthority);
        install(*RunningServer(kAuthority), authority);
        oldPairInForce()();
    };
    made.begin = [this] {
        const auto server = std::make_shared<RunningServer>(kService);
        return running(server, [](Server& running) { running.createAndApplyCASigned(); });
    };
    runAllFaults(made);
}

TEST_F(ServerFaults, Revocation) {
    configure();
    Scenario made = scenario("revoke of the server certificate", "none");
    made.begin = [this] {
        const auto server = std::make_shared<RunningServer>(kService);
        Running revoking = running(server, [](Server& running) { running.revokeCrt(); });
        revoking.examine = [this, server](unsigned) {
            (*server)->revokeCrt();
            const InternalCertificatesAccessor store(kService, "server");
            const bool isThere = Sandbox::exists(store.certPath(store.getActive()));
            return (isThere ? "the next revocation left the certificate\n" : "") + examine(*server);
        };
        return revoking;
    };
    made.unconfirmed = {"old", "none"};
    made.confirmed = {"none"};
    runAllFaults(made);
    runFaultsOfRecovery(made, kPairsOfRecovery);
}

TEST_F(ServerFaults, StartThatFinishesAnInstallation) {
    configure();
    const IssuedCertificate pair = issued("old.example");
    Scenario made = scenario("start after an interrupted installation", pair.certificatePem);
    made.prepare = [&] { cutBetweenTheMoves(pair); };
    made.begin = [this] { return starting(); };
    made.unconfirmed = {"new"};
    runAllFaults(made);
}

}  // namespace
