// The stores of trusted certificates, with a fault at every call.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <set>

#include "FaultRun.h"
#include "Told.h"
#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateIdCnMap.h"
#include "stores/CertificateIdList.h"
#include "stores/TrustedCertificate.h"
#include "support/KeywardenDaemonException.h"
#include "support/Tools.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/TestDevice.h"
#include "x509/Inspection.h"

namespace {

using faults::runAllFaults;
using faults::runFaultsOfRecovery;
using faults::Running;
using faults::runSecondFaults;
using faults::Scenario;
using keywarden::ExternalCertificatesAccessor;
using keywarden::ServiceConfiguration;
using keywarden::TrustedCertificate;
using testsupport::Sandbox;
using testsupport::TestDevice;

constexpr const char* kService = "web";
using Contents = std::set<std::string>;
using keywarden::CertificateIdList;

// Thinned out so far that all of this takes minutes, not an hour.
constexpr unsigned kPairsOfRecovery = 101;
constexpr const char* kNobodysId = "ffffffff.9";

/// With a maximum that a test can change while the store is in use.
class LimitedStore : public TrustedCertificate {
  public:
    using TrustedCertificate::TrustedCertificate;
    [[nodiscard]] unsigned getMaxNumberOfCertificates() const override { return maximum; }
    unsigned maximum = 0;
};

/// A store and its owner, who is told as a service tells its own.
class RunningStore {
  public:
    RunningStore() : configuration_(kService), store_(configuration_) { tellAgain(); }

    LimitedStore* operator->() { return &store_; }

    void add(const std::string& path) {
        tellAgain();
        const std::string id = store_.add(path);
        told({"new", id});
    }

    CertificateIdList revoke(const std::vector<std::string>& ids) {
        tellAgain();
        CertificateIdList revoked;
        try {
            revoked = store_.revoke(ids);
        } catch (...) {
            tellAgain();
            throw;
        }
        if (!revoked.empty()) {
            std::vector<std::string> event = revoked.toArray();
            event.insert(event.begin(), "revoke");
            told(event);
        }
        return revoked;
    }

    bool revokeOne(const std::string& id) {
        tellAgain();
        const bool isRevoked = store_.revoke(id);
        if (isRevoked)
            told({"revoke", id});
        return isRevoked;
    }

  private:
    void tellAgain() {
        for (const std::vector<std::string>& event : store_.toBeTold())
            told(event);
    }

    void told(const std::vector<std::string>& event) {
        const ExternalCertificatesAccessor store(kService, "client");
        const bool isNew = event.front() == "new";
        for (std::size_t word = 1; word < event.size(); ++word)
            faults::recordTold(isNew ? faults::eventOf("new", Sandbox::read(store.certPath(event[word])))
                                     : "revoke " + event[word]);
        store_.told();
    }

    ServiceConfiguration configuration_;
    LimitedStore store_;
};
using StorePtr = std::shared_ptr<RunningStore>;

std::string idOf(const std::string& content) {
    return keywarden::subjectNameHash(keywarden::X509_T::fromPem(content)) + ".0";
}

std::string pem(const std::string& commonName) {
    testsupport::CertificateOptions options;
    options.commonName = commonName;
    return testsupport::makeCertificate(options).certificatePem;
}

std::string source(const std::string& content) {
    return TestDevice::get().sandbox().write("source.pem", content);
}

std::string indexFaultsOf(const ExternalCertificatesAccessor& store, const std::set<std::string>& ids) {
    std::string faults;
    const auto listed = keywarden::CertificateIdList(store.listPath()).toArray();
    if (ids != std::set<std::string>(listed.begin(), listed.end()))
        faults += "the list is not the folder\n";
    const keywarden::CertificateIdCnMap map(store.cnMapPath());
    if (map.toCertificateIdList().toArray() != listed)
        faults += "the map is not the list\n";
    return faults;
}

// Made at the start.
std::string descriptionFaultsOf(const ExternalCertificatesAccessor& store, const std::set<std::string>& ids) {
    std::string faults;
    for (const std::string& id : ids)
        for (const std::string& path : {store.certInfoPath(id), store.certDetailsPath(id)})
            if (!Sandbox::exists(path))
                faults += "missing: " + path + "\n";
    return faults;
}

class StoreFaults : public testing::Test {
  protected:
    StoreFaults() { ::umask(0); }

    static void configure(const std::string& lines) {
        TestDevice::get().writeService(
            kService, "cnfFile /dev/null\ntrustedClients yes\nmanagmentGroup daemon\n" + lines);
    }

    static void fill(const Contents& contents) {
        for (const std::string& root :
             {TestDevice::get().keywardDirectory(), TestDevice::get().pipesDirectory()})
            keywarden::Tools::createDirectory(root + "/" + kService, 0711);
        // Without any the store itself is not there yet.
        if (contents.empty())
            return;
        RunningStore store;
        for (const std::string& content : contents)
            store.add(source(content));
        // A requester's data beside a certificate: a half revocation must not take it away.
        const ExternalCertificatesAccessor paths(kService, "client");
        for (const std::string& name : faults::namesIn(paths.certificateDirectoryPath()))
            if (keywarden::isCertificateId(name))
                TestDevice::get().sandbox().write("keyward/web/client/.cacheddata/" + name + ".overwrite",
                                                  "data", 0664);
    }

    /// The scenario from one set of certificates to another.
    static Scenario from(const std::string& name, const Contents& before, const Contents& after) {
        Scenario scenario;
        scenario.name = name;
        scenario.prepare = [before] { fill(before); };
        scenario.start = [] { return starting(); };
        scenario.restart = [before, after] { return startAndLook(before, after, before); };
        return scenario;
    }

    static std::string startAndLook(const Contents& before, const Contents& after, const Contents& filled) {
        const RunningStore started;
        const ExternalCertificatesAccessor store(kService, "client");
        std::string faults;
        Contents found;
        for (const std::string& name : faults::namesIn(store.certificateDirectoryPath())) {
            if (name == ".cacheddata")
                continue;
            if (!keywarden::isCertificateId(name))
                faults += "left behind: " + name + "\n";
            const std::string content = Sandbox::read(store.certPath(name));
            found.insert(content);
            if (filled.count(content) != 0 && !Sandbox::exists(store.certOverwrittenDataPath(name)))
                faults += "half revoked: " + name + "\n";
        }
        for (const std::string& folder :
             {store.certificateDirectoryPath(), store.cachedDirectoryPath(), store.tmpDirectoryPath()})
            faults += faults::leftoversIn(folder);
        const char* const state = found == after ? "new" : found == before ? "old" : "a mix";
        return std::string(state) + "\n" + faults + indexFaultsOf(store, idsIn(store)) +
               descriptionFaultsOf(store, idsIn(store)) + untoldOf(before, found);
    }

    /// What has come and gone, the owner knows.
    static std::string untoldOf(const Contents& before, const Contents& found) {
        std::string faults;
        std::set<std::string> ids;
        for (const std::string& content : found) {
            ids.insert(idOf(content));
            if (before.count(content) == 0)
                faults += faults::untold(faults::eventOf("new", content));
        }
        for (const std::string& content : before)
            if (ids.count(idOf(content)) == 0)
                faults += faults::untold("revoke " + idOf(content));
        return faults;
    }

    static std::set<std::string> idsIn(const ExternalCertificatesAccessor& store) {
        std::set<std::string> ids;
        if (!Sandbox::exists(store.certificateDirectoryPath()))
            return ids;
        for (const std::string& name : faults::namesIn(store.certificateDirectoryPath()))
            if (keywarden::isCertificateId(name))
                ids.insert(name);
        return ids;
    }

    static Running running(const StorePtr& store, std::function<void(RunningStore&)> operation) {
        const std::set<std::string> before = idsIn(ExternalCertificatesAccessor(kService, "client"));
        return {[store, operation = std::move(operation)] { operation(*store); },
                [store, before](unsigned number) { return examine(*store, before, number); }};
    }

    static Running starting() {
        const auto store = std::make_shared<StorePtr>();
        return {[store] { *store = std::make_shared<RunningStore>(); },
                [store](unsigned number) { return *store ? examineStart(**store, number) : std::string(); }};
    }

    /// A start that failed knows what is there from the next command on.
    static std::string examineStart(RunningStore& store, unsigned number) {
        refresh(store, number);
        return examine(store, {}, number);
    }

    /// After a failure, in the process that goes on.
    static std::string examine(RunningStore& store, const std::set<std::string>& before, unsigned number) {
        const ExternalCertificatesAccessor paths(kService, "client");
        std::string faults = knowledgeFaultsOf(store, paths, before);
        refresh(store, number);
        faults += knowledgeFaultsOf(store, paths, before) + indexFaultsOf(paths, idsIn(paths));
        faults += maximumFaultsOf(store, paths) + indexFaultsOf(paths, idsIn(paths));
        for (const std::string& id : idsIn(paths))
            if (!store->revoke(id))
                faults += "cannot be revoked: " + id + "\n";
        if (!idsIn(paths).empty())
            faults += "revoked, but there\n";
        store.revoke({kNobodysId});
        return faults + knowledgeFaultsOf(store, paths, before) + indexFaultsOf(paths, {});
    }

    /// A command without a fault, of one kind or another.
    static void refresh(RunningStore& store, unsigned number) {
        store->maximum = 1;
        try {
            if (number % 3 == 0)
                store.revoke({kNobodysId});
            else if (number % 3 == 1)
                static_cast<void>(store->revoke(kNobodysId));
            else
                store.add("/nonexistent");
        } catch (const keywarden::KeywardenDaemonException&) {
            // A refusal is an answer, too.
        }
        store->maximum = 0;
    }

    /// The object against the folder.
    static std::string knowledgeFaultsOf(RunningStore& store, const ExternalCertificatesAccessor& paths,
                                         const std::set<std::string>& before) {
        const std::set<std::string> there = idsIn(paths);
        std::set<std::string> candidates = before;
        candidates.insert(there.begin(), there.end());
        std::string faults;
        for (const std::string& id : candidates) {
            bool isKnown = true;
            try {
                static_cast<void>(store->getCertInfo(id));
            } catch (const keywarden::KeywardenDaemonException&) {
                isKnown = false;
            }
            if (isKnown != (there.count(id) != 0))
                faults += std::string(isKnown ? "known, but gone: " : "there, but not known: ") + id + "\n";
        }
        return faults;
    }

    /// As many as are there count, not one less and not one more.
    static std::string maximumFaultsOf(RunningStore& store, const ExternalCertificatesAccessor& paths) {
        const auto count = static_cast<unsigned>(idsIn(paths).size());
        const std::string path = source(pem("another"));
        std::string faults;
        store->maximum = count;
        try {
            if (count != 0) {
                store.add(path);
                faults += "added beyond the maximum\n";
            }
        } catch (const keywarden::KeywardenDaemonException&) {
            // As it must be.
        }
        store->maximum = count + 1;
        store.add(path);
        store->maximum = 0;
        return faults;
    }

    static Running adding(const std::string& content) {
        return running(std::make_shared<RunningStore>(),
                       [path = source(content)](RunningStore& store) { store.add(path); });
    }

    const std::string a_ = pem("a");
    const std::string b_ = pem("b");
    const std::string c_ = pem("c");
    const std::string d_ = pem("d");
};

TEST_F(StoreFaults, Addition) {
    configure("");
    Scenario scenario = from("add", {a_, b_}, {a_, b_, c_});
    scenario.begin = [this] { return adding(c_); };
    runAllFaults(scenario);
    runFaultsOfRecovery(scenario, kPairsOfRecovery);
}

TEST_F(StoreFaults, AdditionToANewStore) {
    configure("");
    Scenario scenario = from("start and first add", {}, {c_});
    scenario.begin = [this] {
        const auto store = std::make_shared<StorePtr>();
        return Running{
            [store, path = source(c_)] {
                *store = std::make_shared<RunningStore>();
                (**store).add(path);
            },
            [store](unsigned number) { return *store ? examineStart(**store, number) : std::string(); }};
    };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, AdditionWithReplacement) {
    configure("uniqueTrustedClientByCn yes\n");
    const std::string again = pem("b");
    Scenario scenario = from("add with replacement", {a_, b_}, {a_, again});
    scenario.begin = [&again] { return adding(again); };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, RevocationOfOne) {
    configure("");
    Scenario scenario = from("revoke one", {a_, b_}, {a_});
    scenario.begin = [this] {
        Running revoking = running(std::make_shared<RunningStore>(), [id = idOf(b_)](RunningStore& store) {
            if (!store.revokeOne(id))
                throw std::runtime_error("not revoked");
        });
        // Its lists are those of the next command that writes them.
        revoking.examine = [examine = revoking.examine](unsigned) { return examine(0); };
        return revoking;
    };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, RevocationOfMany) {
    configure("");
    Scenario scenario = from("revoke many", {a_, b_, c_, d_}, {d_});
    scenario.begin = [this] {
        return running(std::make_shared<RunningStore>(),
                       [ids = std::vector<std::string>{idOf(a_), idOf(b_), idOf(c_)}](RunningStore& store) {
                           if (store.revoke(ids).toArray().size() != ids.size())
                               throw std::runtime_error("not all revoked");
                       });
    };
    // One by one, where not all could go at once.
    runAllFaults(scenario);
    runFaultsOfRecovery(scenario, kPairsOfRecovery);
}

// A journal that could not be removed, or whose folders could not be synced, when a second change begins.
TEST_F(StoreFaults, RevocationAfterAnAdditionThatStaysJournalled) {
    configure("");
    Scenario scenario = from("revoke with a journal standing", {a_, b_, c_}, {b_, c_});
    scenario.prepare = [this] { fill({a_, b_}); };
    scenario.restart = [this] { return startAndLook({a_, b_, c_}, {b_, c_}, {a_, b_}); };
    scenario.begin = [this] {
        return running(std::make_shared<RunningStore>(),
                       [path = source(c_), ids = std::vector<std::string>{idOf(a_)}](RunningStore& store) {
                           store.add(path);
                           faults::mark();
                           if (store.revoke(ids).empty())
                               throw std::runtime_error("not revoked");
                       });
    };
    runSecondFaults(scenario, faults::endOfTheJournal);
}

}  // namespace
