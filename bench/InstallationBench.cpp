// Installing a certificate with all its files, against the same number of files of the same sizes written
// with temporary, fsync and rename in a bare loop.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "server/Server.h"
#include "testsupport/SilentCallbacks.h"
#include "testsupport/TestDevice.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/X509_T.h"

namespace {

using namespace keywarden;
using testsupport::TestDevice;

void prepareService(const std::string& id) {
    const TestDevice& device = TestDevice::get();
    const std::string settings = device.sandbox().write(
        id + ".cnf",
        "CONFIG_KEY PRIME256V1\nCN device.local\nC US\nST NC\nL Millbrook\nO Example\nOU Devices\n"
        "subjectKeyIdentifier hash\nbasicConstraints CA:FALSE\nkeyUsage digitalSignature\n");
    device.writeService(id, "server yes\nselfSignedGeneration yes\ncnfFile " + settings +
                                "\nmanagmentGroup " + TestDevice::group() + "\nkeyGroup " +
                                TestDevice::group() + "\n");
    for (const std::string& folder : {device.keywardDirectory(), device.pipesDirectory()})
        ::mkdir((folder + "/" + id).c_str(), 0711);
}

std::size_t sizeOf(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        throw std::runtime_error("not installed: " + path);
    return static_cast<std::size_t>(info.st_size);
}

/// What an installation writes: each file's folder and size.
struct Written {
    std::string folder;
    std::size_t size;
};

std::array<Written, 6> writtenFiles(const std::string& service) {
    const InternalCertificatesAccessor paths(service, "server");
    const std::string id = paths.getActive();
    return {{{paths.certificateDirectoryPath(), sizeOf(paths.certKeyPath(id))},
             {paths.certificateDirectoryPath(), sizeOf(paths.certPath(id))},
             {paths.tmpDirectoryPath(), sizeOf(paths.certInfoPath(id))},
             {paths.tmpDirectoryPath(), sizeOf(paths.certDetailsPath(id))},
             {paths.cachedDirectoryPath(), sizeOf(paths.certNetworkPath(id))},
             {paths.cachedDirectoryPath(), sizeOf(paths.activePath())}}};
}

void writeBare(const std::string& folder, const std::string& name, const std::string& content) {
    const std::string path = folder + "/" + name;
    const std::string temporary = path + ".tmp";
    const int file = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0 || ::write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        ::fsync(file) != 0 || ::close(file) != 0 || std::rename(temporary.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot write " + path);
}

void BareFiles(benchmark::State& state) {
    static int run = 0;
    const std::string service = "bare" + std::to_string(run++);
    prepareService(service);
    const ServiceConfiguration configuration(service);
    const Server server(configuration, std::make_shared<testsupport::SilentCallbacks>());
    const auto files = writtenFiles(service);
    for (auto _ : state)
        for (std::size_t index = 0; index < files.size(); ++index)
            writeBare(files[index].folder, "bare" + std::to_string(index),
                      std::string(files[index].size, 'x'));
}
BENCHMARK(BareFiles)->Unit(benchmark::kMicrosecond)->UseRealTime();

void KeywardInstallation(benchmark::State& state) {
    static int run = 0;
    const std::string service = "install" + std::to_string(run++);
    prepareService(service);
    const ServiceConfiguration configuration(service);
    Server server(configuration, std::make_shared<testsupport::SilentCallbacks>());
    const InternalCertificatesAccessor paths(service, "server");
    const std::string id = paths.getActive();
    const X509_T certificate(paths.certPath(id));
    const EVP_PKEY_T key(paths.certKeyPath(id));
    const NetworkInfo network(configuration);
    for (auto _ : state)
        server.installCertificate(certificate, key, network);
}
BENCHMARK(KeywardInstallation)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
