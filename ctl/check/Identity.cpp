#include "ctl/check/Identity.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/Accounts.h"
#include "support/Tools.h"

namespace keywardctl::check {

namespace {

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

std::string resolved(const std::string& path) {
    const std::unique_ptr<char, FreeText> real(::realpath(path.c_str(), nullptr));
    return real ? std::string(real.get()) : path;
}

AccessAnswer answerOf(int error, const std::string& where) {
    if (error == ENOENT || error == ENOTDIR)
        return {Access::Missing, where, ""};
    return {Access::Unknown, where, std::strerror(error)};
}

bool isReadOnly(const std::string& path) {
    struct statvfs info {};
    return ::statvfs(path.c_str(), &info) == 0 && (info.f_flag & ST_RDONLY) != 0;
}

}  // namespace

Identity::Identity(const std::string& user) {
    const auto uid = keywarden::userIdOf(user);
    known_ = uid.has_value();
    uid_ = uid.value_or(uid_);
    gid_ = keywarden::groupIdOf(user).value_or(gid_);
    if (known_)
        groups_ = keywarden::Tools::getGroups(user);
}

// Like the kernel, the first class that fits decides: an owner whom the mode refuses is not asked again as a
// member of the group.
bool Identity::mayUse(const keywarden::FileStatus& status, unsigned wanted) const {
    constexpr unsigned kAnyRun = S_IXUSR | S_IXGRP | S_IXOTH;
    if (uid_ == 0)
        return (wanted & kRun) == 0 || status.isFolder() || (status.mode & kAnyRun) != 0;
    unsigned shift = 0;
    if (status.uid == uid_)
        shift = 6;
    else if (status.gid == gid_ || std::find(groups_.begin(), groups_.end(), status.gid) != groups_.end())
        shift = 3;
    return ((status.mode >> shift) & wanted) == wanted;
}

AccessAnswer Identity::walk(const std::string& path, unsigned wanted) const {
    for (auto slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
        const auto status = keywarden::statusOfPath(folder);
        if (!status)
            return answerOf(errno, folder);
        if (!mayUse(*status, kSearch))
            return {Access::Refused, folder, ""};
    }
    const auto status = keywarden::statusOfPath(path);
    if (!status)
        return answerOf(errno, path);
    const bool refused = !mayUse(*status, wanted) || ((wanted & kWrite) != 0 && isReadOnly(path));
    return {refused ? Access::Refused : Access::Granted, path, ""};
}

// The way by name and the way that its links lead: both have to be open.
AccessAnswer Identity::access(const std::string& path, unsigned wanted) const {
    AccessAnswer byName = walk(path, wanted);
    if (byName.access != Access::Granted)
        return byName;
    return walk(resolved(path), wanted);
}

std::string parentOf(const std::string& path) {
    const auto last = path.find_last_not_of('/');
    const auto slash = last == std::string::npos ? 0 : path.find_last_of('/', last);
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace keywardctl::check
