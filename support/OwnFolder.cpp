#include "support/OwnFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/FileWriteError.h"

namespace keywarden {

std::pair<std::string, std::string> splitPath(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return {".", path};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

std::string folderOfPath(const std::string& path) {
    std::string folder = splitPath(path).first;
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder;
}

UniqueFd openFolder(const std::string& folder, const std::string& path, bool mustBeOurs) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (mustBeOurs ? O_NOFOLLOW : 0);
    UniqueFd opened(::open(folder.c_str(), flags));
    // A folder that may be written but not listed can be used, only not synced.
    if (!opened && errno == EACCES && !mustBeOurs)
        opened = UniqueFd(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!opened)
        throw FileWriteError("Impossible to open the folder of", path, errno);
    struct stat info {};
    if (mustBeOurs && (::fstat(opened.get(), &info) != 0 || info.st_uid != ::geteuid()))
        throw FileWriteError("The folder does not belong to the daemon user, refusing to write", path, EPERM);
    return opened;
}

void syncFolder(int folder, const std::string& path) {
    if (::fsync(folder) != 0 && errno != EINVAL && errno != EBADF)
        throw FileWriteError("Impossible to sync", path, errno);
}

void syncFolder(const std::string& path) {
    syncFolder(openFolder(path, path, true).get(), path);
}

}  // namespace keywarden
