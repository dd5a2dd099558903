#include <unistd.h>

#include <stdexcept>

#include "support/Accounts.h"
#include "support/Failure.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr mode_t kModeBits = 0xfff;
constexpr auto kUnchanged = static_cast<unsigned>(-1);

/// False also when the file cannot be looked at: the system call that follows then reports why.
template <typename Matches>
bool alreadyIs(const std::string& path, Matches&& matches) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && matches(info);
}

}  // namespace

FileRights Tools::getRights(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        throw std::runtime_error("Impossible to open " + path);
    return {info.st_mode, info.st_uid, info.st_gid};
}

void Tools::changeMode(const std::string& path, unsigned mode) {
    const mode_t wanted = mode & kModeBits;
    if (alreadyIs(path, [wanted](const auto& info) { return (info.st_mode & kModeBits) == wanted; }))
        return;
    if (::chmod(path.c_str(), wanted) != 0)
        throw std::runtime_error("Impossible to change mode for " + path);
}

void Tools::changeUser(const std::string& path, uid_t uid) {
    if (alreadyIs(path, [uid](const auto& info) { return info.st_uid == uid; }))
        return;
    if (::chown(path.c_str(), uid, kUnchanged) != 0)
        throw std::runtime_error("Impossible to change the user for " + path);
}

bool Tools::changeUser(const std::string& path, const std::string& userName) {
    const auto user = findUser(userName);
    if (!user)
        return false;
    changeUser(path, user->uid);
    return true;
}

void Tools::changeGroup(const std::string& path, gid_t gid) {
    if (alreadyIs(path, [gid](const auto& info) { return info.st_gid == gid; }))
        return;
    if (::chown(path.c_str(), kUnchanged, gid) != 0)
        throw std::runtime_error("Impossible to change the group for " + path);
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
