#include "support/TemporaryFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/Log.h"

namespace keywarden {

namespace {

constexpr std::string_view kEnding = ".new";
constexpr std::string_view kDigits = "0123456789";

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

/// Takes ".<digits>" off the end. False when there is none.
bool dropNumber(std::string_view& name) {
    const std::size_t point = name.rfind('.');
    if (point == std::string_view::npos || point + 1 == name.size() ||
        name.find_first_not_of(kDigits, point + 1) != std::string_view::npos)
        return false;
    name.remove_suffix(name.size() - point);
    return true;
}

void removeIfOurs(int folder, const std::string& path, const char* name) {
    struct stat info {};
    if (::fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode) ||
        info.st_uid != ::geteuid())
        return;
    if (::unlinkat(folder, name, 0) == 0)
        debugTrace("Removed '" + path + "/" + name + "', left by a run that was cut short.");
    else if (errno != ENOENT)
        Log::write(SeverityError,
                   "Failed to remove file '" + path + "/" + name + "' : " + std::strerror(errno));
}

}  // namespace

std::pair<UniqueFd, std::string> makeTemporary(int folder, const std::string& target,
                                               const std::string& path) {
    static std::atomic<unsigned> counter{0};
    for (;;) {
        std::string temporary =
            "." + target + "." + std::to_string(::getpid()) + "." + std::to_string(counter++) + ".new";
        UniqueFd file(
            ::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file)
            return {std::move(file), std::move(temporary)};
        if (errno != EEXIST)
            throw FileWriteError("Impossible to create", path, errno);
    }
}

std::string targetOfTemporary(std::string_view name) {
    if (name.size() <= kEnding.size() || name.front() != '.' ||
        name.substr(name.size() - kEnding.size()) != kEnding)
        return {};
    name.remove_suffix(kEnding.size());
    if (!dropNumber(name) || !dropNumber(name) || name.empty())
        return {};
    return std::string(name.substr(1));
}

void removeTemporaries(const std::string& folder, const std::string& target) {
    const std::unique_ptr<DIR, CloseFolder> listing(::opendir(folder.c_str()));
    if (!listing)
        return;
    while (const dirent* const entry = ::readdir(listing.get())) {
        const std::string found = targetOfTemporary(entry->d_name);
        if (!found.empty() && (target.empty() || found == target))
            removeIfOurs(::dirfd(listing.get()), folder, entry->d_name);
    }
}

}  // namespace keywarden
