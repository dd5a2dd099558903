// The stores of trusted certificates, with a fault at every call.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <set>

#include "FaultRun.h"
#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateIdCnMap.h"
#include "stores/CertificateIdList.h"
#include "stores/TrustedCertificate.h"
#include "support/Tools.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/TestDevice.h"

namespace {

using faults::runAllFaults;
using faults::Scenario;
using keywarden::ExternalCertificatesAccessor;
using keywarden::ServiceConfiguration;
using keywarden::TrustedCertificate;
using testsupport::Sandbox;
using testsupport::TestDevice;

constexpr const char* kService = "web";
using Contents = std::set<std::string>;
using Operation = std::function<void()>;

class RunningStore {
  public:
    RunningStore() : configuration_(kService), store_(configuration_) {}
    TrustedCertificate* operator->() { return &store_; }

  private:
    ServiceConfiguration configuration_;
    TrustedCertificate store_;
};

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
            store->add(source(content));
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
        scenario.restart = [before, after] { return startAndLook(before, after); };
        return scenario;
    }

    static std::string startAndLook(const Contents& before, const Contents& after) {
        const RunningStore started;
        const ExternalCertificatesAccessor store(kService, "client");
        Contents found;
        std::set<std::string> ids;
        std::string faults;
        for (const std::string& name : faults::namesIn(store.certificateDirectoryPath())) {
            if (name == ".cacheddata")
                continue;
            if (!keywarden::isCertificateId(name))
                faults += "left behind: " + name + "\n";
            ids.insert(name);
            const std::string content = Sandbox::read(store.certPath(name));
            found.insert(content);
            if (before.count(content) != 0 && !Sandbox::exists(store.certOverwrittenDataPath(name)))
                faults += "half revoked: " + name + "\n";
        }
        for (const std::string& folder :
             {store.certificateDirectoryPath(), store.cachedDirectoryPath(), store.tmpDirectoryPath()})
            faults += faults::leftoversIn(folder);
        const char* const state = found == after ? "new" : found == before ? "old" : "a mix";
        return std::string(state) + "\n" + faults + indexFaultsOf(store, ids);
    }

    static std::vector<std::string> idsOf(const Contents& contents) {
        const ExternalCertificatesAccessor store(kService, "client");
        std::vector<std::string> ids;
        for (const std::string& name : faults::namesIn(store.certificateDirectoryPath()))
            if (keywarden::isCertificateId(name) && contents.count(Sandbox::read(store.certPath(name))) != 0)
                ids.push_back(name);
        return ids;
    }

    const std::string a_ = pem("a");
    const std::string b_ = pem("b");
    const std::string c_ = pem("c");
    const std::string d_ = pem("d");
};

TEST_F(StoreFaults, Addition) {
    configure("");
    Scenario scenario = from("add", {a_, b_}, {a_, b_, c_});
    scenario.begin = [this] {
        const auto store = std::make_shared<RunningStore>();
        return Operation([store, path = source(c_)] { (*store)->add(path); });
    };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, AdditionToANewStore) {
    configure("");
    Scenario scenario = from("start and first add", {}, {c_});
    scenario.begin = [this] {
        return Operation([path = source(c_)] {
            RunningStore store;
            store->add(path);
        });
    };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, AdditionWithReplacement) {
    configure("uniqueTrustedClientByCn yes\n");
    const std::string again = pem("b");
    Scenario scenario = from("add with replacement", {a_, b_}, {a_, again});
    scenario.begin = [again] {
        const auto store = std::make_shared<RunningStore>();
        return Operation([store, path = source(again)] { (*store)->add(path); });
    };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, RevocationOfOne) {
    configure("");
    Scenario scenario = from("revoke one", {a_, b_}, {a_});
    scenario.begin = [this] {
        const auto store = std::make_shared<RunningStore>();
        return Operation([store, ids = idsOf({b_})] {
            if (!(*store)->revoke(ids.at(0)))
                throw std::runtime_error("not revoked");
        });
    };
    runAllFaults(scenario);
}

TEST_F(StoreFaults, RevocationOfMany) {
    configure("");
    Scenario scenario = from("revoke many", {a_, b_, c_, d_}, {d_});
    scenario.begin = [this] {
        const auto store = std::make_shared<RunningStore>();
        return Operation([store, ids = idsOf({a_, b_, c_})] {
            if ((*store)->revoke(ids).toArray().size() != ids.size())
                throw std::runtime_error("not all revoked");
        });
    };
    runAllFaults(scenario);
}

}  // namespace
