#include "stores/ExternalCertificatesStorage.h"

#include <new>
#include <sstream>
#include <stdexcept>

#include "channel/Answer.h"
#include "config/ServiceConfiguration.h"
#include "stores/CertificateId.h"
#include "stores/CertificateInfo.h"
#include "stores/CertificateInfoStorage.h"
#include "stores/IndexFile.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/Tools.h"
#include "x509/Inspection.h"
#include "x509/Secret.h"

namespace keywarden {

namespace {

// The places of the store's folders in their set: certificates, their hidden data, what is made again at
// every start.
constexpr std::size_t kDurableFolders = 2;
constexpr const char* kNewEvent = "new";
constexpr const char* kRevokeEvent = "revoke";

Secret readSource(const std::string& path) {
    if (!Tools::fileExist(path))
        throw KeywardenDaemonException(AnswerFailure, "Certificate does not exist for " + path);
    try {
        return Secret(readRegularFile(path, kLargestCertificateFile));
    } catch (...) {
        throw KeywardenDaemonException(AnswerFailure, Failure::current().text());
    }
}

std::runtime_error unwritableDetails(const std::string& path, const std::string& service) {
    return std::runtime_error("Not able to open details file '" + path + "' for writing for service '" +
                              service + "'.");
}

}  // namespace

ExternalCertificatesStorage::ExternalCertificatesStorage(const ServiceConfiguration& configuration,
                                                         const std::string& storeName)
    : storeName_(storeName),
      configuration_(configuration),
      accessor_(configuration, storeName),
      folders_({accessor_.certificateDirectoryPath(), accessor_.cachedDirectoryPath(),
                accessor_.tmpDirectoryPath()}),
      journal_(folders_, kDurableFolders) {
    // Must not ask for a policy: the subclass does not exist yet.
    updateFileSystem();
}

std::string ExternalCertificatesStorage::add(const std::string& sourcePath) {
    const std::string task = "Add certificate" + place();
    debugTrace(task);
    settle();
    refuseWhenFull();
    const Secret source = readSource(sourcePath);
    debugTrace(" -> Load the certificate...");
    const X509_T certificate = loadSource(source.text(), sourcePath);
    debugTrace(" -> Check the certificate...");
    if (!isValidCertificate(certificate))
        throw KeywardenDaemonException(AnswerCertificateInvalid, "No valid certificate found.");
    debugTrace(" -> Get the certificate name...");
    std::string id = newIdOf(certificate);
    saveFiles(id, certificate, source.text());
    debugTrace(task + "... Done.");
    return id;
}

void ExternalCertificatesStorage::saveFiles(const std::string& id, const X509_T& certificate,
                                            std::string_view content) {
    const std::string commonName = subjectCommonName(certificate);
    try {
        FileTransaction change(journal_);
        debugTrace(" -> Copy the certificate...");
        change.stage(accessor_.certPath(id), content, attributes());
        try {
            stageFiles(change, id, certificate);
        } catch (...) {
            // No roll-back: what was staged before the failing step goes into the store.
            change.commitAtAnyRate();
            throw;
        }
        change.tell({kNewEvent, id});
        change.commit();
        idCnMap_.set(id, commonName);
    } catch (...) {
        // Read anew, whatever lies there now.
        idCnMap_.remove(id);
        learnAgain();
        if (isStoredAs(id, certificate)) {
            Log::write(SeverityError,
                       "The certificate '" + id + "' could not be added as a whole" + place() +
                           ", but it is stored there and counts. Revoke it if it is not wanted.");
            // Whoever trusts what lies there has to know.
            rememberToTell({kNewEvent, id});
        }
        throw;
    }
}

void ExternalCertificatesStorage::stageFiles(FileTransaction& change, const std::string& id,
                                             const X509_T& certificate) const {
    stageDescription(change, certificate, id);
    debugTrace(" -> Update list and map...");
    CertificateIdCnMap map = idCnMap_;
    map.set(id, subjectCommonName(certificate));
    stageIndexes(change, map);
}

// Before a command: what an earlier one left unfinished is brought to its end, and the store learns what it
// holds.
void ExternalCertificatesStorage::settle() {
    folders_.noticeWhetherThere();
    if (journal_.isUnfinished())
        isKnown_ = false;
    if (!isKnown_)
        learnAgain();
}

// After a failure: the folder decides, not what was meant to be done to it. What it holds is counted and
// revocable from here on, also where the lists cannot be written now.
void ExternalCertificatesStorage::learnAgain() {
    try {
        if (!hasLearnt_) {
            rebuild();
            return;
        }
        isKnown_ = false;
        if (journal_.isUnfinished())
            journal_.recover();
        learnChanges();
        writeIndexes();
        isKnown_ = isAllRead_ && !journal_.isUnfinished();
    } catch (...) {
        Log::write(SeverityError, "The lists of what is stored" + place() +
                                      " could not be written again: " + Failure::current().text());
    }
}

// What counts the owner has to know, however it came about.
void ExternalCertificatesStorage::rememberToTell(const Journal::Event& event) {
    try {
        FileTransaction change(journal_);
        change.tell(event);
        change.commitAtAnyRate();
    } catch (const std::runtime_error& error) {
        Log::write(SeverityError, "An event that is to be told" + place() + " is lost: " + error.what());
    }
}

std::vector<std::vector<std::string>> ExternalCertificatesStorage::toBeTold() const {
    Journal::Events events;
    for (const Journal::Event& event : journal_.toBeTold()) {
        Journal::Event current{event.front()};
        // A certificate that has gone or come back since is no such news any more.
        const bool isNew = event.front() == kNewEvent;
        for (std::size_t word = 1; word < event.size(); ++word)
            if (!isKnown_ || idCnMap_.certificateIdExist(event[word]) == isNew)
                current.push_back(event[word]);
        if (current.size() > 1)
            events.push_back(std::move(current));
    }
    return events;
}

void ExternalCertificatesStorage::told() {
    if (!journal_.toBeTold().empty())
        journal_.told();
}

void ExternalCertificatesStorage::stageDescription(FileTransaction& change, const X509_T& certificate,
                                                   const std::string& id) const {
    debugTrace(" -> Create Info file...");
    const std::string infoPath = accessor_.certInfoPath(id);
    try {
        change.stage(infoPath, CertificateInfoStorage(certificate).toJson(), attributes());
    } catch (const FileWriteError& error) {
        throw CertificateInfoStorage::unwritable(infoPath, error);
    }
    debugTrace(" -> Create details file...");
    const std::string detailsPath = accessor_.certDetailsPath(id);
    try {
        change.stage(detailsPath, printedText(certificate), attributes());
    } catch (const FileWriteError&) {
        throw unwritableDetails(detailsPath, service());
    }
}

void ExternalCertificatesStorage::stageIndexes(FileTransaction& change, const CertificateIdCnMap& map) const {
    const auto stage = [&](const std::string& path, const std::string& lines) {
        try {
            change.stage(path, lines, attributes());
        } catch (const FileWriteError&) {
            failToOpenIndex(path);
        }
    };
    stage(accessor_.listPath(), map.toCertificateIdList().toLines());
    stage(accessor_.cnMapPath(), map.toLines());
}

void ExternalCertificatesStorage::refuseWhenFull() const {
    const unsigned maximum = getMaxNumberOfCertificates();
    if (maximum != 0 && maximum <= idCnMap_.size())
        throw KeywardenDaemonException(AnswerStoreFull,
                                       "Too many certificates found while adding certificate" + place());
}

X509_T ExternalCertificatesStorage::loadSource(const std::string& content, const std::string& path) const {
    X509_T certificate;
    try {
        certificate = X509_T::fromPem(content);
    } catch (...) {
        throw KeywardenDaemonException(AnswerCertificateInvalid,
                                       "Failed to read certificate from file: " + path);
    }
    // The copy will be readable by everybody.
    if (content.find("PRIVATE KEY-----") != std::string::npos)
        throw KeywardenDaemonException(AnswerCertificateInvalid, "The certificate file holds a private key.");
    return certificate;
}

std::string ExternalCertificatesStorage::newIdOf(const X509_T& certificate) const {
    const std::string hash = subjectNameHash(certificate);
    return hashMustBeUnique() ? onlyIdOf(hash, certificate) : nextIdOf(hash, certificate);
}

std::string ExternalCertificatesStorage::onlyIdOf(const std::string& hash, const X509_T& certificate) const {
    std::string id = certificateId(hash, 0);
    if (idCnMap_.certificateIdExist(id))
        refuseWhenStoredAs(id, certificate);
    return id;
}

std::string ExternalCertificatesStorage::nextIdOf(const std::string& hash, const X509_T& certificate) const {
    std::string id;
    for (unsigned suffix = 0; suffix < kIdsPerHash; ++suffix) {
        const std::string candidate = certificateId(hash, suffix);
        if (idCnMap_.certificateIdExist(candidate))
            refuseWhenStoredAs(candidate, certificate);
        else if (id.empty())
            id = candidate;
    }
    if (id.empty())
        throw KeywardenDaemonException(AnswerStoreFull,
                                       "Reached maximum limit of certificates with same hash.");
    return id;
}

void ExternalCertificatesStorage::refuseWhenStoredAs(const std::string& id, const X509_T& certificate) const {
    if (isStoredAs(id, certificate))
        throw KeywardenDaemonException(AnswerAlreadyPresent, "Certificate already present" + place());
}

bool ExternalCertificatesStorage::isStoredAs(const std::string& id, const X509_T& certificate) const {
    try {
        return sameEncoding(storedCertificate(id), certificate);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        // Gone or damaged behind our back: nothing that another could be the same as.
        debugTrace(Failure::current().text());
        return false;
    }
}

bool ExternalCertificatesStorage::revoke(const std::string& id) {
    settle();
    FileTransaction change(journal_);
    CertificateIdList revoked;
    if (idCnMap_.certificateIdExist(id))
        change.tell({kRevokeEvent, id});
    addRemoval(change, id, idCnMap_.certificateIdExist(id), revoked);
    // On a full disk, too, a certificate can be revoked.
    change.commitAtAnyRate();
    return !revoked.empty();
}

// The traces come in their turn, and the certificate leaves the map only when it is gone.
void ExternalCertificatesStorage::addRemoval(FileTransaction& change, const std::string& id, bool isThere,
                                             CertificateIdList& revoked) {
    const std::string task = "Remove " + id + " for " + service();
    change.call([task] { debugTrace(task); });
    if (!isThere) {
        change.call([task] { debugTrace(task + " Failed. Certificate Id doesn't exist."); });
        return;
    }
    for (const std::string& path : filesOf(id))
        change.remove(path);
    change.call([this, task, id, &revoked] {
        if (!isGone(id))
            return;
        idCnMap_.remove(id);
        revoked.add(id);
        debugTrace(task + " done.");
    });
}

// What cannot be told at the first attempt is asked once more; what is not known to be gone stays in the
// lists.
bool ExternalCertificatesStorage::isGone(const std::string& id) const {
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            return !folders_.exists(accessor_.certPath(id));
        } catch (const FileWriteError& error) {
            debugTrace(error.what());
        }
    }
    return false;
}

CertificateIdList ExternalCertificatesStorage::revoke(const std::vector<std::string>& ids) {
    settle();
    CertificateIdList revoked;
    if (revokeTogether(ids, revoked))
        return revoked;
    // They are gone, and nobody may hear of it by what fails below.
    if (!revoked.empty()) {
        Journal::Event event{kRevokeEvent};
        for (const std::string& id : revoked.toArray())
            event.push_back(id);
        rememberToTell(event);
    }
    for (const std::string& id : ids)
        if (idCnMap_.certificateIdExist(id) && revoke(id))
            revoked.add(id);
    writeIndexes();
    return revoked;
}

// False when it could not be done so: on a full disk the new indexes cannot be staged, but certificates be
// removed.
bool ExternalCertificatesStorage::revokeTogether(const std::vector<std::string>& ids,
                                                 CertificateIdList& revoked) {
    try {
        FileTransaction change(journal_);
        CertificateIdCnMap remaining = idCnMap_;
        Journal::Event event{kRevokeEvent};
        for (const std::string& id : ids) {
            const bool isThere = remaining.certificateIdExist(id);
            addRemoval(change, id, isThere, revoked);
            remaining.remove(id);
            if (isThere)
                event.push_back(id);
        }
        if (event.size() > 1)
            change.tell(event);
        stageIndexes(change, remaining);
        change.commit();
        return remaining.size() == idCnMap_.size();
    } catch (const std::runtime_error& error) {
        isKnown_ = false;
        Log::write(SeverityError,
                   "Revoking certificates" + place() + " one by one, not all at once: " + error.what());
        return false;
    }
}

std::string ExternalCertificatesStorage::getCertInfo(const std::string& id) const {
    // Asked for by a requester: only an id of the store may become a path.
    if (!idCnMap_.certificateIdExist(id))
        throw KeywardenDaemonException("Certificate '" + id + "' doesn't exist" + place());
    try {
        std::ostringstream text;
        text << CertificateInfo(CertificateInfoStorage(storedCertificate(id)));
        return text.str();
    } catch (...) {
        const std::string subject = "exception caught while getting certificate data" + place();
        throw KeywardenDaemonException(
            Failure::current().message("Std " + subject + ": ", "Unknown " + subject + "."));
    }
}

void ExternalCertificatesStorage::writeDetails(const X509_T& certificate, const std::string& id) const {
    const std::string path = accessor_.certDetailsPath(id);
    const std::string details = printedText(certificate);
    try {
        FileWriter writer(folders_);
        writer.stage(path, details, derivedAttributes());
        writer.commit();
    } catch (const FileWriteError&) {
        throw unwritableDetails(path, service());
    }
}

void ExternalCertificatesStorage::removeCertificateFiles(const std::string& id) const {
    for (const std::string& path : filesOf(id))
        folders_.remove(path);
}

std::vector<std::string> ExternalCertificatesStorage::filesOf(const std::string& id) const {
    return {accessor_.certInfoPath(id), accessor_.certDetailsPath(id), accessor_.certOverwrittenDataPath(id),
            accessor_.certPath(id)};
}

X509_T ExternalCertificatesStorage::storedCertificate(const std::string& id) const {
    return X509_T::fromPem(folders_.read(accessor_.certPath(id), kLargestCertificateFile));
}

void ExternalCertificatesStorage::writeIndexes() {
    FileTransaction change(journal_);
    stageIndexes(change, idCnMap_);
    change.commit();
}

FileAttributes ExternalCertificatesStorage::attributes() const {
    return {0644, configuration_.getManagementGroup(), std::string(), true, true};
}

FileAttributes ExternalCertificatesStorage::derivedAttributes() const {
    FileAttributes derived = attributes();
    derived.synced = false;
    return derived;
}

const std::string& ExternalCertificatesStorage::service() const {
    return configuration_.getServiceId();
}

std::string ExternalCertificatesStorage::place() const {
    return " inside " + storeName_ + " for " + service();
}

}  // namespace keywarden
