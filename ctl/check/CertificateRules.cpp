#include <cerrno>
#include <filesystem>

#include "config/ExternalCertificatesAccessor.h"
#include "config/InternalCertificatesAccessor.h"
#include "ctl/check/Rules.h"
#include "ctl/check/StoredPair.h"
#include "stores/CertificateId.h"
#include "support/Clock.h"
#include "support/Common.h"
#include "support/FileStatus.h"
#include "support/Tools.h"

namespace keywardctl::check {

namespace {

namespace fs = std::filesystem;
using keywarden::Clock;

/// The active certificate and its key, as they stood at one moment.
struct Pair {
    std::string id;
    StoredCertificate certificate;
    StoredKey key;

    [[nodiscard]] bool isRead() const {
        return certificate.certificate.get() != nullptr && key.key.get() != nullptr;
    }
    [[nodiscard]] bool matches() const {
        return isRead() && keyMatchesCertificate(key.key, certificate.certificate);
    }
};

Pair readPair(const keywarden::InternalCertificatesAccessor& store, const std::string& service) {
    Pair pair;
    pair.id = activeIdOf(service);
    if (keywarden::isCertificateId(pair.id)) {
        pair.certificate = readStoredCertificate(store.certPath(pair.id));
        pair.key = readStoredKey(store.certKeyPath(pair.id));
    }
    return pair;
}

// The daemon may be renewing it right now: what does not fit is read once more.
Pair readSettledPair(const keywarden::InternalCertificatesAccessor& store, const std::string& service) {
    Pair pair = readPair(store, service);
    return pair.matches() || pair.id.empty() ? std::move(pair) : readPair(store, service);
}

bool isMissing(const std::string& path) {
    return !keywarden::linkStatusOfPath(path) && (errno == ENOENT || errno == ENOTDIR);
}

void checkDates(const keywarden::X509_T& certificate, const std::string& path, Report& report) {
    if (keywarden::Common::isDateOld())
        return;
    // Signed: a moment before the epoch is long past.
    const std::int64_t now = Clock::now();
    if (static_cast<std::int64_t>(notAfterOf(certificate)) < now)
        report.add(Code::CertificateEnded, {path}, "the service's certificate has ended",
                   "Renew it: the daemon does so by itself only with 'selfSignedOnExpiration yes' or "
                   "'CASignedOnExpiration yes'.");
    else if (static_cast<std::int64_t>(notBeforeOf(certificate)) > now)
        report.add(Code::CertificateNotYetValid, {path}, "the service's certificate is not valid yet",
                   "Look whether the device's clock is right.");
}

void checkCertificate(const Pair& pair, const std::string& path, Report& report) {
    if (pair.certificate.refused)
        report.addNotLookedAt(path, pair.certificate.problem);
    else if (pair.certificate.certificate.get() == nullptr)
        report.add(Code::CertificateUnreadable, {path}, "this is no certificate: " + pair.certificate.problem,
                   "Remove it; the next start of the service makes a new one where generation is on.");
    else
        checkDates(pair.certificate.certificate, path, report);
}

void checkKey(const Pair& pair, const std::string& path, Report& report) {
    if (pair.key.refused)
        report.addNotLookedAt(path, pair.key.problem);
    else if (pair.key.key.get() == nullptr)
        report.add(Code::KeyUnreadable, {path}, "this is no private key: " + pair.key.problem,
                   "Have a new certificate made: without its key this one is of no use.");
    else if (pair.isRead() && !pair.matches())
        report.add(Code::KeyMismatch, {path}, "the key does not belong to the certificate",
                   "Have a new certificate made: with another key this one is of no use.");
}

void checkServer(const CheckedService& service, Report& report) {
    const keywarden::InternalCertificatesAccessor store(service.id, "server");
    const Pair pair = readSettledPair(store, service.id);
    if (pair.id.empty())
        return;
    if (!keywarden::isCertificateId(pair.id)) {
        report.add(Code::ActiveMalformed, {store.activePath()},
                   quoted(pair.id) + " is no id of a certificate", "Empty the file and restart the daemon.");
        return;
    }
    const std::string certificate = store.certPath(pair.id);
    const std::string key = store.certKeyPath(pair.id);
    for (const std::string& path : {certificate, key}) {
        const bool refused = pair.certificate.refused || pair.key.refused;
        if (!refused && isMissing(path))
            report.add(Code::ActiveWithoutFiles, {store.activePath()},
                       "the active certificate has no file " + quoted(path),
                       "It was revoked or got lost: have a new one made or applied.");
    }
    if (!isMissing(certificate))
        checkCertificate(pair, certificate, report);
    if (!isMissing(key))
        checkKey(pair, key, report);
}

void checkTrusted(const std::string& path, const std::string& id, Report& report) {
    const StoredCertificate stored = readStoredCertificate(path);
    if (stored.refused) {
        report.addNotLookedAt(path, stored.problem);
        return;
    }
    const bool isRead = stored.certificate.get() != nullptr;
    if (!isRead || subjectNameHash(stored.certificate) != keywarden::hashOfId(id))
        report.add(Code::StoredCertificate, {path},
                   isRead ? "the file's name is not that of its certificate, which the daemon leaves out"
                          : "this is no certificate, and the daemon leaves it out: " + stored.problem,
                   "Remove it, and add the certificate with the command 'add'.");
    else if (!keywarden::Common::isDateOld() &&
             static_cast<std::int64_t>(notAfterOf(stored.certificate)) < Clock::now())
        report.add(Code::TrustedCertificateEnded, {path}, "this trusted certificate has ended",
                   "Remove it with the command 'revoke'.");
}

void checkStore(const CheckedService& service, const std::string& name, Report& report) {
    const keywarden::ExternalCertificatesAccessor store(service.id, name);
    std::error_code error;
    const fs::path folder = store.certificateDirectoryPath();
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        const std::string id = entry->path().filename().string();
        if (keywarden::isCertificateId(id))
            checkTrusted(store.certPath(id), id, report);
    }
    if (error == std::errc::permission_denied)
        report.addNotLookedAt(folder.string(), error.message());
}

}  // namespace

void checkCertificates(const Subject&, const CheckedService& service, Report& report) {
    if (service.file.values.isYes(ServiceKey::Server)) {
        checkServer(service, report);
        checkUnnamedFiles(service, report);
    }
    if (service.file.values.isYes(ServiceKey::CA))
        checkStore(service, "ca", report);
    if (service.file.values.isYes(ServiceKey::TrustedClients))
        checkStore(service, "client", report);
}

void checkClock(Report& report) {
    if (keywarden::Common::isDateOld())
        report.add(Code::ClockUnset, {},
                   "the clock was never set: no certificate is made before 1999-12-30 12:00",
                   "Set the clock.");
}

}  // namespace keywardctl::check
