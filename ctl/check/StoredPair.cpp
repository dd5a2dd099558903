#include "ctl/check/StoredPair.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "config/InternalCertificatesAccessor.h"
#include "stores/CertificateId.h"
#include "support/FileStatus.h"
#include "support/RegularFile.h"
#include "support/UniqueFd.h"

namespace keywardctl::check {

namespace {

constexpr std::size_t kLongestId = 4096;

bool isRefused(const std::string& path) {
    return ::access(path.c_str(), R_OK) != 0 && errno == EACCES;
}

}  // namespace

StoredCertificate readStoredCertificate(const std::string& path) {
    StoredCertificate stored;
    try {
        stored.certificate =
            keywarden::X509_T::fromPem(keywarden::readRegularFile(path, keywarden::kLargestCertificateFile));
    } catch (const std::runtime_error& error) {
        stored.problem = error.what();
        stored.refused = isRefused(path);
    }
    return stored;
}

// The folder is the daemon user's: what the name means may change between a look and the reading, so the
// descriptor that was looked at is the one that is read.
StoredKey readStoredKey(const std::string& path) {
    StoredKey stored;
    const keywarden::UniqueFd file(
        ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    const auto status = file ? keywarden::statusOf(file.get()) : std::nullopt;
    if (!status) {
        stored.refused = errno == EACCES;
        stored.problem = std::strerror(errno);
    } else if (!status->isRegular()) {
        stored.problem = "it is not a regular file";
    } else {
        try {
            stored.key = keywarden::EVP_PKEY_T("/proc/self/fd/" + std::to_string(file.get()));
        } catch (const std::runtime_error&) {
            stored.problem = "it holds no private key";
        }
    }
    return stored;
}

std::string activeIdOf(const std::string& serviceId) {
    const keywarden::InternalCertificatesAccessor store(serviceId, "server");
    try {
        const std::string content = keywarden::readRegularFile(store.activePath(), kLongestId);
        return content.substr(0, content.find('\n'));
    } catch (const std::runtime_error&) {
        return {};
    }
}

StoredCertificate activeCertificateOf(const std::string& serviceId) {
    const std::string id = activeIdOf(serviceId);
    if (!keywarden::isCertificateId(id))
        return {};
    return readStoredCertificate(keywarden::InternalCertificatesAccessor(serviceId, "server").certPath(id));
}

}  // namespace keywardctl::check
