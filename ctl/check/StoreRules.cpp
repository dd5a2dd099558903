#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>

#include "channel/PipeFiles.h"
#include "config/ExternalCertificatesAccessor.h"
#include "config/InternalCertificatesAccessor.h"
#include "ctl/check/Rules.h"
#include "ctl/check/StoredPair.h"
#include "stores/CertificateId.h"
#include "support/Accounts.h"
#include "support/FileStatus.h"

namespace keywardctl::check {

namespace {

namespace fs = std::filesystem;
using keywarden::FileStatus;

constexpr mode_t kFolder = 0711;
constexpr mode_t kPlain = 0644;
constexpr mode_t kKey = 0640;

std::string octal(mode_t mode) {
    std::array<char, 8> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%04o", mode & 07777U));
    return text.data();
}

/// The rules for one file of the daemon's; what does not exist is none.
class RightsRules {
  public:
    RightsRules(const Subject& subject, Report& report) : subject_(subject), report_(report) {}

    void check(const std::string& path, mode_t mode, const std::string& group) {
        const auto status = look(path);
        if (!status)
            return;
        checkMode(path, *status, mode);
        checkOwner(path, *status);
        checkGroup(path, *status, group);
    }

    void checkKeyFile(const std::string& path, const std::string& group) {
        const auto status = look(path);
        if (!status)
            return;
        if (status->isRegular() && (status->mode & (S_IROTH | S_IWOTH)) != 0)
            report_.add(Code::KeyReadable, {path},
                        "everybody may use this private key: its mode is " + octal(status->mode),
                        "Have a new certificate with a new key made, and close this one with 'chmod 0640 " +
                            path + "'.");
        else
            checkMode(path, *status, kKey);
        checkOwner(path, *status);
        checkGroup(path, *status, group);
    }

  private:
    std::optional<FileStatus> look(const std::string& path) {
        auto status = keywarden::linkStatusOfPath(path);
        // The daemon follows root's links.
        if (status && status->isLink() && status->uid == 0)
            status = keywarden::statusOfPath(path);
        if (!status && errno != ENOENT && errno != ENOTDIR)
            report_.addNotLookedAt(path, std::strerror(errno));
        return status;
    }

    void checkMode(const std::string& path, const FileStatus& status, mode_t mode) {
        if (status.permissions() != mode)
            report_.add(Code::WrongMode, {path},
                        "the mode is " + octal(status.mode) + " and should be " + octal(mode),
                        "Set it with 'chmod " + octal(mode) + " " + path + "'.");
    }

    void checkOwner(const std::string& path, const FileStatus& status) {
        if (subject_.identity.isKnown() && status.uid != subject_.identity.uid())
            report_.add(
                Code::WrongOwner, {path},
                "the owner is not the daemon user " + quoted(subject_.user) + ", who has to change it",
                "Set it with 'chown " + subject_.user + " " + path + "'.");
    }

    void checkGroup(const std::string& path, const FileStatus& status, const std::string& group) {
        const auto gid = keywarden::groupIdOf(group);
        if (gid && status.gid != *gid)
            report_.add(Code::WrongGroup, {path}, "the group is not " + quoted(group),
                        "Set it with 'chgrp " + group + " " + path + "'.");
    }

    const Subject& subject_;
    Report& report_;
};

std::vector<std::string> idsIn(const std::string& folder) {
    std::vector<std::string> ids;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        std::string name = entry->path().filename().string();
        if (keywarden::isCertificateId(name))
            ids.push_back(std::move(name));
    }
    return ids;
}

void checkServerStore(RightsRules& rules, const CheckedService& service) {
    const std::string group = service.file.values.text(ServiceKey::ManagementGroup);
    const std::string keyGroup = service.file.values.text(ServiceKey::KeyGroup);
    const keywarden::InternalCertificatesAccessor store(service.id, "server");
    for (const std::string& folder :
         {store.certificateDirectoryPath(), store.cachedDirectoryPath(), store.tmpDirectoryPath()})
        rules.check(folder, kFolder, group);
    for (const std::string& path : {store.activePath(), store.csrPath(), store.csrNetworkPath()})
        rules.check(path, kPlain, group);
    rules.checkKeyFile(store.csrKeyPath(), keyGroup);
    const std::string id = activeIdOf(service.id);
    if (!keywarden::isCertificateId(id))
        return;
    for (const std::string& path :
         {store.certPath(id), store.certNetworkPath(id), store.certInfoPath(id), store.certDetailsPath(id)})
        rules.check(path, kPlain, group);
    rules.checkKeyFile(store.certKeyPath(id), keyGroup);
    rules.check(store.certOverwrittenDataPath(id), 0664, group);
}

void checkTrustedStore(RightsRules& rules, const CheckedService& service, const std::string& name) {
    const std::string group = service.file.values.text(ServiceKey::ManagementGroup);
    const keywarden::ExternalCertificatesAccessor store(service.id, name);
    for (const std::string& folder :
         {store.certificateDirectoryPath(), store.cachedDirectoryPath(), store.tmpDirectoryPath()})
        rules.check(folder, kFolder, group);
    rules.check(store.listPath(), kPlain, group);
    rules.check(store.cnMapPath(), kPlain, group);
    for (const std::string& id : idsIn(store.certificateDirectoryPath())) {
        for (const std::string& path :
             {store.certPath(id), store.certInfoPath(id), store.certDetailsPath(id)})
            rules.check(path, kPlain, group);
    }
}

}  // namespace

void checkDaemonFolders(const Subject& subject, Report& report) {
    const auto& values = subject.daemon.values;
    RightsRules rules(subject, report);
    for (const DaemonKey key : {DaemonKey::KeywardDirectory, DaemonKey::NamePipesDirectory})
        rules.check(values.text(key), kFolder, subject.user);
    rules.check(values.text(DaemonKey::NamePipesDirectory) + "/" + keywarden::kNotificationFifo,
                keywarden::kInputFifoMode, values.text(DaemonKey::NotificationGroup));
}

void checkStores(const Subject& subject, const CheckedService& service, Report& report) {
    const auto& daemon = subject.daemon.values;
    const std::string group = service.file.values.text(ServiceKey::ManagementGroup);
    RightsRules rules(subject, report);
    rules.check(daemon.text(DaemonKey::KeywardDirectory) + "/" + service.id, kFolder, group);
    const std::string pipes = daemon.text(DaemonKey::NamePipesDirectory) + "/" + service.id;
    rules.check(pipes, keywarden::kPipesFolderMode, group);
    rules.check(pipes + "/" + keywarden::inputFifoOf(service.id), keywarden::kInputFifoMode, group);
    rules.check(pipes + "/" + keywarden::requesterLockOf(service.id), keywarden::kRequesterLockMode, group);
    if (service.file.values.isYes(ServiceKey::Server))
        checkServerStore(rules, service);
    if (service.file.values.isYes(ServiceKey::CA))
        checkTrustedStore(rules, service, "ca");
    if (service.file.values.isYes(ServiceKey::TrustedClients))
        checkTrustedStore(rules, service, "client");
}

}  // namespace keywardctl::check
