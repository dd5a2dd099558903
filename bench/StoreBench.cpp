// A store of trusted clients with many certificates in it: adding one more, and coming up again.
// What a start makes anew stands in memory on a device: run it with TMPDIR in memory too, or it measures the
// disk (report.py does so).
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "config/ExternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/TrustedCertificate.h"
#include "testsupport/TestDevice.h"
#include "x509/Inspection.h"
#include "x509/OpenSslPtr.h"
#include "x509/X509_T.h"

namespace {

using namespace keywarden;
using testsupport::TestDevice;

constexpr int kAdditions = 20;
constexpr long kYear = 365L * 86400;

/// All of one kind and of nearly one size; the number is all that tells them apart.
X509_T client(unsigned number) {
    // One key for all: making ten thousand would take longer than everything that is measured here.
    static const EvpPkeyPtr key(EVP_EC_gen("P-256"));
    X509_T certificate(X509_new());
    X509* const raw = certificate.get();
    const std::string common = "client" + std::to_string(1000000 + number);
    X509_set_version(raw, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(raw), static_cast<long>(number) + 1);
    X509_gmtime_adj(X509_getm_notBefore(raw), 0);
    X509_gmtime_adj(X509_getm_notAfter(raw), kYear);
    X509_set_pubkey(raw, key.get());
    X509_NAME* const name = X509_get_subject_name(raw);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(common.c_str()), -1, -1, 0);
    X509_set_issuer_name(raw, name);
    if (X509_sign(raw, key.get(), EVP_sha256()) <= 0)
        throw std::runtime_error("cannot sign a certificate");
    return certificate;
}

/// A service whose store holds `count` certificates, and the store as it runs.
class FilledStore {
  public:
    explicit FilledStore(unsigned count) : service_("store" + std::to_string(count)), next_(count) {
        const TestDevice& device = TestDevice::get();
        device.writeService(
            service_, "trustedClients yes\ncnfFile /unused\nmanagmentGroup " + TestDevice::group() + "\n");
        for (const std::string& folder : {device.keywardDirectory(), device.pipesDirectory()})
            ::mkdir((folder + "/" + service_).c_str(), 0711);
        configuration_ = std::make_unique<ServiceConfiguration>(service_);
        const std::string folder =
            ExternalCertificatesAccessor(service_, "client").certificateDirectoryPath();
        ::mkdir(folder.c_str(), 0711);
        for (unsigned number = 0; number < count; ++number) {
            const X509_T certificate = client(number);
            std::ofstream(folder + certificateId(subjectNameHash(certificate), 0)) << certificate.toPem();
        }
        store_ = std::make_unique<TrustedCertificate>(*configuration_);
    }

    static FilledStore& of(std::int64_t count) {
        static std::map<std::int64_t, std::unique_ptr<FilledStore>> stores;
        std::unique_ptr<FilledStore>& store = stores[count];
        if (!store)
            store = std::make_unique<FilledStore>(static_cast<unsigned>(count));
        return *store;
    }

    [[nodiscard]] const ServiceConfiguration& configuration() const { return *configuration_; }

    std::string nextSource() {
        return TestDevice::get().sandbox().write("source.pem", client(next_++).toPem());
    }

    void add(const std::string& source) { store_->add(source); }

    /// The two files that grow with the store and are written whole.
    [[nodiscard]] std::int64_t indexBytes() const {
        const ExternalCertificatesAccessor paths(service_, "client");
        return sizeOf(paths.listPath()) + sizeOf(paths.cnMapPath());
    }

  private:
    static std::int64_t sizeOf(const std::string& path) {
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0)
            throw std::runtime_error("missing: " + path);
        return info.st_size;
    }

    std::string service_;
    unsigned next_;
    std::unique_ptr<ServiceConfiguration> configuration_;
    std::unique_ptr<TrustedCertificate> store_;
};

/// What this process has handed to write(2) so far, whatever became of it.
std::int64_t bytesWritten() {
    std::ifstream accounting("/proc/self/io");
    for (std::string word; accounting >> word;) {
        std::int64_t value = 0;
        if (word == "wchar:" && accounting >> value)
            return value;
    }
    throw std::runtime_error("the kernel does not count what is written");
}

void KeywardAddition(benchmark::State& state) {
    FilledStore& store = FilledStore::of(state.range(0));
    std::int64_t beyondIndexes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const std::string source = store.nextSource();
        const std::int64_t before = bytesWritten();
        state.ResumeTiming();
        store.add(source);
        state.PauseTiming();
        beyondIndexes += bytesWritten() - before - store.indexBytes();
        state.ResumeTiming();
    }
    state.counters["bytesBeyondIndexes"] = static_cast<double>(beyondIndexes) / kAdditions;
    state.counters["indexBytes"] = static_cast<double>(store.indexBytes());
}
BENCHMARK(KeywardAddition)
    ->Arg(0)
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(kAdditions)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

void KeywardStoreStart(benchmark::State& state) {
    const ServiceConfiguration& configuration = FilledStore::of(state.range(0)).configuration();
    for (auto _ : state)
        benchmark::DoNotOptimize(TrustedCertificate(configuration).storeName());
    state.counters["each"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(KeywardStoreStart)
    ->Arg(1000)
    ->Arg(3000)
    ->Arg(10000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
