#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/FileStatus.h"

namespace testsupport {

constexpr std::int64_t kIn2040 = 2208988800;  ///< beyond what a signed number of 32 bits holds
constexpr std::int64_t kIn2106 = 4300000000;  ///< and an unsigned one

/// The dates of reading and writing, with 64 bits whatever the C library's time_t has; a link's own. The date
/// of the status cannot be set. Throws std::runtime_error, also when the file system does not keep such a
/// date.
inline void dateLate(const std::string& path, std::int64_t seconds) {
    struct KernelTime {
        std::int64_t seconds;
        std::int64_t nanoseconds;
    };
    const std::array<KernelTime, 2> times{{{seconds, 0}, {seconds, 0}}};
#ifdef SYS_utimensat_time64
    constexpr long kCall = SYS_utimensat_time64;
#else
    constexpr long kCall = SYS_utimensat;
#endif
    if (::syscall(kCall, AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0)
        throw std::runtime_error("cannot date " + path);
    const auto status = keywarden::linkStatusOfPath(path);
    if (!status || status->modificationTime != seconds)
        throw std::runtime_error("the date is not kept of " + path);
}

/// Everything below a folder, and the folder. The names are collected first: the functions of the standard
/// library fail for what is dated already.
inline void dateTreeLate(const std::string& folder, std::int64_t seconds) {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        paths.push_back(entry.path().string());
    for (const std::string& path : paths)
        dateLate(path, seconds);
    dateLate(folder, seconds);
}

}  // namespace testsupport
