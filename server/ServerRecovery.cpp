// What a start does about an earlier run that was cut short: a crash, a power cut, a full disk.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "server/Server.h"
#include "stores/CertificateId.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/TemporaryFile.h"
#include "support/Tools.h"
#include "x509/Inspection.h"

namespace keywarden {

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

constexpr std::size_t kIdLength = 10;

bool endsLikeAFileOfACertificate(const std::string& name) {
    const std::string ending = name.substr(kIdLength);
    return ending.empty() || ending == ".key" || ending == ".network" || ending == ".overwrite";
}

}  // namespace

void Server::recover() const {
    journal.recover();
    removeTemporaries(accessor.tmpDirectoryPath());
}

bool Server::loadActiveCertificate() {
    const std::string id = accessor.getActive();
    const bool isWhole = isWholePair(id);
    // Both say what they find: the record is made from the certificate, but stands elsewhere.
    const bool isLoaded = loadCertificateInfo(id);
    if (isWhole && isLoaded)
        return true;
    certificateInfo.reset();
    return false;
}

// The active file keeps a revoked certificate's id, and files can be lost: the service starts all the same.
bool Server::loadCertificateInfo(const std::string& id) {
    try {
        certificateInfo = std::make_shared<CertificateInfo>(accessor.certInfoPath(id));
        return true;
    } catch (...) {
        Log::write(SeverityError,
                   "The certificate '" + id + "' of service '" + name() +
                       "' cannot be loaded, going on without it: " + Failure::current().text());
        return false;
    }
}

// A certificate that nobody can use, for want of its key, is none. One that was revoked has left neither.
bool Server::isWholePair(const std::string& id) const {
    std::string reason;
    const bool hasCertificate = Tools::fileExist(accessor.certPath(id));
    const bool hasKey = Tools::fileExist(accessor.certKeyPath(id));
    if (!hasCertificate && !hasKey)
        return false;
    try {
        if (!hasKey)
            reason = "The key is missing.";
        else if (!hasCertificate)
            reason = "The certificate is missing.";
        else if (!keyMatchesCertificate(EVP_PKEY_T(accessor.certKeyPath(id)), X509_T(accessor.certPath(id))))
            reason = "The key does not belong to the certificate.";
    } catch (...) {
        reason = Failure::current().text();
    }
    if (!reason.empty())
        Log::write(SeverityError, "The certificate '" + id + "' of service '" + name() +
                                      "' and its key are no pair and count as no certificate: " + reason);
    return reason.empty();
}

// Files of an installation that failed before its certificate came into force, or whose earlier certificate
// was not removed any more: nobody is ever told of them, and a key must not lie about.
void Server::removeUnfinished(const std::string& active) {
    std::set<std::string> ids;
    addForeignIds(accessor.certificateDirectoryPath(), active, ids);
    addForeignIds(accessor.cachedDirectoryPath(), active, ids);
    for (const std::string& id : ids) {
        debugTrace("Remove what is left of the certificate " + id);
        removeCertificate(id);
    }
}

void Server::addForeignIds(const std::string& folder, const std::string& active,
                           std::set<std::string>& found) const {
    const std::unique_ptr<DIR, CloseFolder> listing(::opendir(folder.c_str()));
    if (!listing)
        return;
    while (const dirent* const entry = ::readdir(listing.get())) {
        const std::string file = entry->d_name;
        const std::string id = file.substr(0, kIdLength);
        struct stat info {};
        if (isCertificateId(id) && id.back() == '0' && id != active && endsLikeAFileOfACertificate(file) &&
            ::fstatat(::dirfd(listing.get()), file.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode) && info.st_uid == ::geteuid())
            found.insert(id);
    }
}

}  // namespace keywarden
