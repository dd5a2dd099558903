// What the daemon does not keep of the process that has started it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon/StartUp.h"
#include "support/Debug.h"

namespace keywarden {

namespace {

constexpr unsigned kFirst = STDERR_FILENO + 1;
constexpr rlim_t kMostTried = 65536;
const char* const kDefaultPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

bool closeByRange() {
#ifdef SYS_close_range
    return ::syscall(SYS_close_range, kFirst, ~0U, 0U) == 0;
#else
    return false;
#endif
}

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

bool closeByListing() {
    const std::unique_ptr<DIR, CloseFolder> folder(::opendir("/proc/self/fd"));
    if (!folder)
        return false;
    // First all, then closed: the folder changes with each.
    std::vector<int> open;
    while (const dirent* const entry = ::readdir(folder.get()))
        open.push_back(std::atoi(entry->d_name));  // NOLINT(cert-err34-c): "." and ".." are to be 0
    for (const int descriptor : open)
        if (descriptor >= static_cast<int>(kFirst) && descriptor != ::dirfd(folder.get()))
            ::close(descriptor);
    return true;
}

void closeOneByOne() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        limit.rlim_cur = kMostTried;
    const int end = static_cast<int>(std::min(limit.rlim_cur, kMostTried));
    for (int descriptor = kFirst; descriptor < end; ++descriptor)
        ::close(descriptor);
}

// The starter's own may be a folder that is closed to the daemon user.
bool isUsefulFolder(const char* path) {
    return path[0] == '/' && ::access(path, W_OK | X_OK) == 0;
}

}  // namespace

void closeInheritedDescriptors() {
    if (!closeByRange() && !closeByListing())
        closeOneByOne();
}

void cleanEnvironment() {
    std::vector<std::pair<const char*, std::string>> kept;
    for (const char* const name : {"PATH", "TZ", "LANG", "TMPDIR"})
        if (const char* const value = std::getenv(name))
            kept.emplace_back(name, value);
    ::clearenv();
    ::setenv("PATH", kDefaultPath, 1);
    for (const auto& [name, value] : kept)
        if (std::string(name) != "TMPDIR" || isUsefulFolder(value.c_str()))
            ::setenv(name, value.c_str(), 1);
}

void releaseStandardStreams() {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0)
        return;
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (descriptor != STDERR_FILENO || !gDebug)
            ::dup2(null, descriptor);
    ::close(null);
}

}  // namespace keywarden
