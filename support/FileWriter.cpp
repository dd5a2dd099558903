#include "support/FileWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "support/Accounts.h"
#include "support/FileWriteError.h"

namespace keywarden {

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
    throw FileWriteError(what + " '" + path + "': " + std::strerror(error), error);
}

std::pair<std::string, std::string> splitPath(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return {".", path};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

// A link in the place of a store's folder is refused only when the path does not end in a slash.
std::string withoutEndingSlashes(std::string folder) {
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
        fail("Impossible to open the folder of", path, errno);
    struct stat info {};
    if (mustBeOurs && (::fstat(opened.get(), &info) != 0 || info.st_uid != ::geteuid()))
        fail("The folder does not belong to the daemon user, refusing to write", path, EPERM);
    return opened;
}

std::pair<UniqueFd, std::string> makeTemporary(int folder, const std::string& name, const std::string& path) {
    static std::atomic<unsigned> counter{0};
    for (;;) {
        std::string temporary =
            "." + name + "." + std::to_string(::getpid()) + "." + std::to_string(counter++) + ".new";
        UniqueFd file(
            ::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file)
            return {std::move(file), std::move(temporary)};
        if (errno != EEXIST)
            fail("Impossible to create", path, errno);
    }
}

void setOwners(int file, const std::string& path, const FileAttributes& attributes) {
    struct stat info {};
    if (::fstat(file, &info) != 0)
        fail("Impossible to examine", path, errno);
    const auto uid = userIdOf(attributes.user);
    if (uid && *uid != info.st_uid && ::fchown(file, *uid, static_cast<gid_t>(-1)) != 0)
        throw std::runtime_error("Impossible to change the user for " + path);
    const auto gid = groupIdOf(attributes.group);
    if (gid && *gid != info.st_gid && ::fchown(file, static_cast<uid_t>(-1), *gid) != 0)
        throw std::runtime_error("Runtime error caught while changing group for file '" + path +
                                 "': Impossible to change the group for " + path);
}

void writeAll(int file, std::string_view content, const std::string& path) {
    while (!content.empty()) {
        const ssize_t written = ::write(file, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            fail("Impossible to write", path, errno);
        content.remove_prefix(static_cast<std::size_t>(written));
    }
}

void fill(int file, const std::string& path, std::string_view content, const FileAttributes& attributes) {
    setOwners(file, path, attributes);
    if (::fchmod(file, attributes.mode) != 0)
        throw std::runtime_error("Impossible to change mode for " + path);
    writeAll(file, content, path);
    if (::fsync(file) != 0)
        fail("Impossible to sync", path, errno);
}

}  // namespace

FileWriter::~FileWriter() {
    for (const Staged& file : staged_)
        remove(file);
}

void FileWriter::stage(const std::string& path, std::string_view content, const FileAttributes& attributes) {
    auto [folderPath, name] = splitPath(path);
    const auto folder = folderOf(withoutEndingSlashes(std::move(folderPath)), path, attributes.inOwnFolder);
    auto [file, temporary] = makeTemporary(folder->get(), name, path);
    // From here on the destructor removes it.
    staged_.push_back({path, std::move(name), std::move(temporary), folder});
    try {
        fill(file.get(), path, content, attributes);
    } catch (...) {
        // Nor may a commit() of the other files put it in place.
        remove(staged_.back());
        staged_.pop_back();
        throw;
    }
}

void FileWriter::remove(const Staged& file) {
    ::unlinkat(file.folder->get(), file.temporaryName.c_str(), 0);
}

std::shared_ptr<UniqueFd> FileWriter::folderOf(const std::string& folder, const std::string& path,
                                               bool mustBeOurs) {
    const auto known = std::find_if(folders_.begin(), folders_.end(), [&](const Folder& candidate) {
        return candidate.path == folder && (candidate.ours || !mustBeOurs);
    });
    if (known != folders_.end())
        return known->descriptor;
    folders_.push_back(
        {folder, mustBeOurs, std::make_shared<UniqueFd>(openFolder(folder, path, mustBeOurs))});
    return folders_.back().descriptor;
}

void FileWriter::commit() {
    while (!staged_.empty()) {
        const Staged& file = staged_.front();
        const int folder = file.folder->get();
        if (::renameat(folder, file.temporaryName.c_str(), folder, file.name.c_str()) != 0)
            fail("Impossible to put in place", file.path, errno);
        staged_.erase(staged_.begin());
    }
    for (const Folder& folder : folders_) {
        // A file system without folder syncs (EINVAL) and a folder opened by path only (EBADF) give what they
        // can.
        if (::fsync(folder.descriptor->get()) != 0 && errno != EINVAL && errno != EBADF)
            fail("Impossible to sync", folder.path, errno);
    }
}

void FileWriter::write(const std::string& path, std::string_view content, const FileAttributes& attributes) {
    FileWriter writer;
    writer.stage(path, content, attributes);
    writer.commit();
}

}  // namespace keywarden
