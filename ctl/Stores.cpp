#include "ctl/Stores.h"

#include <algorithm>
#include <cerrno>

#include "config/ExternalCertificatesAccessor.h"
#include "ctl/Problem.h"
#include "stores/CertificateId.h"
#include "stores/CertificateIdList.h"
#include "support/FileStatus.h"
#include "support/RegularFile.h"

namespace keywardctl {

namespace {

// Nothing for a file that does not exist. Throws Problem when it cannot be known.
std::optional<keywarden::FileStatus> look(const std::string& path) {
    const auto status = keywarden::statusOfPath(path);
    if (status)
        return status;
    if (errno == ENOENT || errno == ENOTDIR)
        return std::nullopt;
    throw Problem(ExitCode::Failed, fileProblem("cannot look at", path, errno));
}

std::string readFile(const std::string& path) {
    try {
        return keywarden::readRegularFile(path, keywarden::kLargestCertificateFile);
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, "'" + path + "' cannot be read: " + error.what());
    }
}

}  // namespace

keywarden::InternalCertificatesAccessor serverStoreOf(const std::string& service) {
    return {service, "server"};
}

std::optional<ActiveCertificate> activeCertificateOf(const std::string& service) {
    const keywarden::InternalCertificatesAccessor store = serverStoreOf(service);
    if (!look(store.activePath()))
        return std::nullopt;
    ActiveCertificate active;
    active.id = store.getActive();
    // After a revocation the id stays behind without its files.
    if (!keywarden::isCertificateId(active.id))
        return std::nullopt;
    active.path = store.certPath(active.id);
    const auto file = look(active.path);
    if (!file)
        return std::nullopt;
    active.installedAt = file->modificationTime;
    active.pem = readFile(active.path);
    active.certificate = certificateIn(active.pem, active.path);
    return active;
}

bool isRequestPending(const std::string& service) {
    return look(serverStoreOf(service).csrPath()).has_value();
}

std::vector<std::string> storedIds(const std::string& service, const std::string& store) {
    const std::string path = keywarden::ExternalCertificatesAccessor(service, store).listPath();
    if (!look(path))
        return {};
    std::vector<std::string> ids;
    try {
        ids = keywarden::CertificateIdList(path).toArray();
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, error.what());
    }
    const auto foreign = [](const std::string& id) { return !keywarden::isCertificateId(id); };
    ids.erase(std::remove_if(ids.begin(), ids.end(), foreign), ids.end());
    return ids;
}

std::string storedPem(const std::string& service, const std::string& store, const std::string& id) {
    const std::vector<std::string> ids = storedIds(service, store);
    if (std::find(ids.begin(), ids.end(), id) == ids.end())
        throw Problem(ExitCode::Failed, "there is no certificate '" + id + "' in the store '" + store +
                                            "' of the service '" + service + "'");
    return readFile(keywarden::ExternalCertificatesAccessor(service, store).certPath(id));
}

keywarden::X509_T certificateIn(const std::string& pem, const std::string& path) {
    try {
        return keywarden::X509_T::fromPem(pem);
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, "'" + path + "' holds no certificate: " + error.what());
    }
}

}  // namespace keywardctl
