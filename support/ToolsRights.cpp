#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "support/Accounts.h"
#include "support/Failure.h"
#include "support/FileStatus.h"
#include "support/FileWriteError.h"
#include "support/Folder.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr mode_t kModeBits = 0xfff;
/// What a configured path names, never by way of somebody else's link; a link in its place is left alone.
struct Named {
    FolderPtr folder;
    std::string name;

    explicit Named(const std::string& path) {
        const std::string plain = withoutEndingSlashes(path);
        folder = Folder::at(folderOfPath(plain), Folder::Owner::Anybody);
        name = splitPath(plain).second;
    }

    [[nodiscard]] FileStatus status() const {
        const auto found = statusAt(folder->get(), name);
        if (!found || found->isLink())
            throw FileWriteError("No file or folder", folder->pathOf(name), ELOOP);
        return *found;
    }

    void own(uid_t uid, gid_t gid) const {
        if (::fchownat(folder->get(), name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) != 0)
            throw FileWriteError("Impossible to own", folder->pathOf(name), errno);
    }

    // Through an open descriptor: by its name it could be a link by then.
    void allow(mode_t mode) const {
        const UniqueFd file(
            ::openat(folder->get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!file || ::fchmod(file.get(), mode) != 0)
            throw FileWriteError("Impossible to allow", folder->pathOf(name), errno);
    }
};

constexpr auto kSameUser = static_cast<uid_t>(-1);
constexpr auto kSameGroup = static_cast<gid_t>(-1);

}  // namespace

FileRights Tools::getRights(const std::string& path) {
    const auto status = statusOfPath(path);
    if (!status)
        throw std::runtime_error("Impossible to open " + path);
    return {status->mode, status->uid, status->gid};
}

void Tools::changeMode(const std::string& path, unsigned mode) {
    const mode_t wanted = mode & kModeBits;
    try {
        const Named named(path);
        if ((named.status().mode & kModeBits) != wanted)
            named.allow(wanted);
    } catch (const FileWriteError&) {
        throw std::runtime_error("Impossible to change mode for " + path);
    }
}

void Tools::changeUser(const std::string& path, uid_t uid) {
    try {
        const Named named(path);
        if (named.status().uid != uid)
            named.own(uid, kSameGroup);
    } catch (const FileWriteError&) {
        throw std::runtime_error("Impossible to change the user for " + path);
    }
}

bool Tools::changeUser(const std::string& path, const std::string& userName) {
    const auto user = findUser(userName);
    if (!user)
        return false;
    changeUser(path, user->uid);
    return true;
}

void Tools::changeGroup(const std::string& path, gid_t gid) {
    try {
        const Named named(path);
        if (named.status().gid != gid)
            named.own(kSameUser, gid);
    } catch (const FileWriteError&) {
        throw std::runtime_error("Impossible to change the group for " + path);
    }
}

bool Tools::changeGroup(const std::string& path, const std::string& groupName) {
    try {
        const auto group = findGroup(groupName);
        if (!group)
            return false;
        changeGroup(path, group->gid);
        return true;
    } catch (...) {
        const std::string file = "caught while changing group for file '" + path + "'";
        throw std::runtime_error(Failure::current().runtimeMessage("Runtime error " + file + ": ",
                                                                   "Std exception " + file + ": ",
                                                                   "Generic exception " + file + "."));
    }
}

}  // namespace keywarden
