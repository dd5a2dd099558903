#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace keywarden {

/// What the file system says of a file. Asked for with statx(2): with a 32-bit time_t, stat(2) answers
/// EOVERFLOW for every file that is dated after 19 January 2038, as if it did not exist.
struct FileStatus {
    mode_t mode = 0;  ///< type and permissions, as in st_mode
    uid_t uid = 0;
    gid_t gid = 0;
    std::uint64_t size = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint32_t links = 0;
    // Whole seconds since the epoch.
    std::int64_t birthTime = 0;   ///< nanoseconds since the epoch; 0 where the file system does not keep it
    std::int64_t changeTime = 0;  ///< of the file's status
    std::int64_t modificationTime = 0;

    [[nodiscard]] bool isFolder() const { return S_ISDIR(mode); }
    [[nodiscard]] bool isRegular() const { return S_ISREG(mode); }
    [[nodiscard]] bool isFifo() const { return S_ISFIFO(mode); }
    [[nodiscard]] bool isLink() const { return S_ISLNK(mode); }
    [[nodiscard]] bool isSocket() const { return S_ISSOCK(mode); }
    [[nodiscard]] mode_t permissions() const { return mode & 07777U; }
    /// A number that a removed file had is soon given to another; where the file system keeps it, the time of
    /// birth tells them apart.
    [[nodiscard]] bool isSameFile(const FileStatus& other) const {
        return device == other.device && inode == other.inode && birthTime == other.birthTime;
    }
};

// None, with errno, when there is nothing or it cannot be looked at.

/// Of an open file.
[[nodiscard]] std::optional<FileStatus> statusOf(int file);
/// Of a name in an open folder; a link is looked at itself.
[[nodiscard]] std::optional<FileStatus> statusAt(int folder, const std::string& name);
/// Of what a path leads to, links followed. It may be something else a moment later: for paths that a
/// requester or an administrator named, never to decide what may be done to a file.
[[nodiscard]] std::optional<FileStatus> statusOfPath(const std::string& path);
/// The same of a link itself.
[[nodiscard]] std::optional<FileStatus> linkStatusOfPath(const std::string& path);

}  // namespace keywarden
