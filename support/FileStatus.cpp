#include "support/FileStatus.h"

#include <fcntl.h>

namespace keywarden {

namespace {

std::optional<FileStatus> ask(int folder, const char* name, int flags) {
    struct statx found {};
    if (::statx(folder, name, flags | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME, &found) != 0)
        return std::nullopt;
    FileStatus status;
    status.mode = found.stx_mode;
    status.uid = found.stx_uid;
    status.gid = found.stx_gid;
    status.size = found.stx_size;
    status.device = (std::uint64_t{found.stx_dev_major} << 32U) | found.stx_dev_minor;
    status.inode = found.stx_ino;
    status.links = found.stx_nlink;
    if ((found.stx_mask & STATX_BTIME) != 0U)
        status.birthTime = found.stx_btime.tv_sec * INT64_C(1000000000) + found.stx_btime.tv_nsec;
    status.changeTime = found.stx_ctime.tv_sec;
    status.modificationTime = found.stx_mtime.tv_sec;
    return status;
}

}  // namespace

std::optional<FileStatus> statusOf(int file) {
    return ask(file, "", AT_EMPTY_PATH);
}

std::optional<FileStatus> statusAt(int folder, const std::string& name) {
    return ask(folder, name.c_str(), AT_SYMLINK_NOFOLLOW);
}

std::optional<FileStatus> statusOfPath(const std::string& path) {
    return ask(AT_FDCWD, path.c_str(), 0);
}

std::optional<FileStatus> linkStatusOfPath(const std::string& path) {
    return ask(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW);
}

}  // namespace keywarden
