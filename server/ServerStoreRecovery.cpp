// What a start does about an earlier run that was cut short: a crash, a power cut, a full disk; and what is
// done when the pair in force is none any more.
#include <new>
#include <set>
#include <stdexcept>

#include "server/ServerEvents.h"
#include "server/ServerStore.h"
#include "server/StoreFiles.h"
#include "stores/CertificateId.h"
#include "stores/CertificateInfoStorage.h"
#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/Log.h"
#include "support/TemporaryFile.h"
#include "x509/Inspection.h"

namespace keywarden {

namespace {

constexpr std::size_t kIdLength = 10;
constexpr const char* kKept = ".kept";

bool endsLikeAFileOfACertificate(const std::string& name) {
    const std::string ending = name.substr(kIdLength);
    return ending.empty() || ending == ".key" || ending == ".network" || ending == ".overwrite";
}

std::string joined(const std::set<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

}  // namespace

void ServerStore::recover() {
    journal_.recover();
    removeTemporaries(*folders_.folder(kTemporaryFolder));
}

X509_T ServerStore::storedCertificate(const std::string& id) const {
    return readCertificate(folders_, accessor_.certPath(id));
}

// A certificate that nobody can use, for want of its key, is none. One that was revoked has left neither.
bool ServerStore::loadActiveCertificate() {
    const std::string id = activeId();
    certificateInfo_.reset();
    const bool hasCertificate = folders_.exists(accessor_.certPath(id));
    const bool hasKey = folders_.exists(accessor_.certKeyPath(id));
    if (!hasCertificate && !hasKey) {
        Log::write(SeverityError, "The certificate '" + id + "' of service '" + name() +
                                      "' cannot be loaded, going on without it: Its files are missing.");
        return false;
    }
    try {
        if (!hasKey)
            throw std::runtime_error("The key is missing.");
        if (!hasCertificate)
            throw std::runtime_error("The certificate is missing.");
        const X509_T certificate = storedCertificate(id);
        if (!keyMatchesCertificate(readKey(folders_, accessor_.certKeyPath(id)), certificate))
            throw std::runtime_error("The key does not belong to the certificate.");
        certificateInfo_ = std::make_unique<CertificateInfo>(CertificateInfoStorage(certificate));
        return true;
    } catch (const FileWriteError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        Log::write(SeverityError,
                   "The certificate '" + id + "' of service '" + name() +
                       "' and its key are no pair and count as no certificate: " + error.what());
        return false;
    }
}

// Whoever put them there, and why, is not known: they are left alone.
void ServerStore::warnOfUnnamedFiles() const {
    std::set<std::string> files;
    for (std::size_t place = 0; place < kDurableFolders; ++place)
        addUnnamed(folders_.pathOf(place), files);
    if (files.empty())
        return;
    Log::write(SeverityWarning, "The store of the service '" + name() +
                                    "' holds files of certificates that are not in force: " + joined(files) +
                                    ". To put one in force, write its id into '" + accessor_.activePath() +
                                    "', without a line end, and reload the service; else remove them.");
}

void ServerStore::addUnnamed(const std::string& folder, std::set<std::string>& found) const {
    const std::string active = activeId();
    const FolderSet::File at = folders_.at(folder + "/any");
    for (const std::string& file : at.folder->names()) {
        const std::string id = file.substr(0, kIdLength);
        if (isCertificateId(id) && id != active && endsLikeAFileOfACertificate(file))
            found.insert(id);
    }
}

// A pair that the active file does not name, whole, under the very id that is about to be installed:
// somebody's only copy of a key, perhaps.
void ServerStore::keepUnnamedPair(const std::string& id) const {
    const std::string certificate = accessor_.certPath(id);
    const std::string key = accessor_.certKeyPath(id);
    if (!folders_.exists(certificate) || !folders_.exists(key))
        return;
    try {
        if (!keyMatchesCertificate(readKey(folders_, key), storedCertificate(id)))
            return;
        const FolderSet::File at = folders_.at(certificate);
        const bool isKept =
            at.folder->link(id, id + kKept) && at.folder->link(id + ".key", id + kKept + std::string(".key"));
        if (isKept)
            Log::write(SeverityWarning, "A certificate and its key that were not in force, and whose id '" +
                                            id + "' a new one gets, are kept as '" + certificate + kKept +
                                            "' and '" + certificate + kKept + ".key'.");
    } catch (const std::exception& error) {
        debugTrace(error.what());
    }
}

// A disk that failed between two files of a change may do better by now. Only a pair that does not match is
// looked into: of one that was revoked there is none.
ServerStore::Health ServerStore::heal() {
    folders_.noticeWhetherThere();
    if (!isCertificatePresent())
        return Health::WithoutCertificate;
    if (journal_.isUnfinished() || journal_.hasLeftOver()) {
        recover();
        static_cast<void>(loadActiveCertificate());
    }
    const std::string id = activeId();
    const bool hasFiles =
        folders_.exists(accessor_.certPath(id)) && folders_.exists(accessor_.certKeyPath(id));
    return hasFiles && !loadActiveCertificate() && !journal_.isUnfinished() ? Health::Broken
                                                                            : Health::Settled;
}

// Events that the owner was not told of because the daemon was stopped, killed or without power.
void ServerStore::tellAgain() {
    const Journal::Events events = journal_.toBeTold();
    for (const Journal::Event& event : events) {
        const bool isKnown = event.size() == 3 && event[0] == kNewEvent;
        if (!isKnown || event[1] != activeId())
            continue;
        Log::write(SeverityNotice, "The owner of the service '" + name() +
                                       "' is told again of the certificate '" + event[1] +
                                       "', which an earlier run had installed.");
        tell(event[1], event[2] == kNone ? std::string() : event[2]);
        return;
    }
    if (!events.empty())
        journal_.told();
}

}  // namespace keywarden
