#include "support/Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/Accounts.h"
#include "support/FileWriteError.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr auto kUnchangedUser = static_cast<uid_t>(-1);
constexpr auto kUnchangedGroup = static_cast<gid_t>(-1);
constexpr int kReading = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// Against somebody who puts something in the place again and again.
constexpr unsigned kAttempts = 100;
constexpr unsigned kRandomNameLength = 10;

struct CloseListing {
    void operator()(DIR* listing) const { ::closedir(listing); }
};
using Listing = std::unique_ptr<DIR, CloseListing>;

bool isOurs(const FileStatus& status) {
    return status.uid == ::geteuid();
}

// What root put into a folder of ours, it meant to be there.
bool isTrusted(const FileStatus& status) {
    return isOurs(status) || status.uid == 0;
}

// A name of one component: whatever else it is, it must not lead anywhere.
const char* checked(const std::string& name) {
    const bool leads = name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
                       name.find('\0') != std::string::npos;
    if (leads)
        throw FileWriteError("Not a name in a folder:", name, EINVAL);
    return name.c_str();
}

Listing listingOf(int folder) {
    UniqueFd own(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Listing listing(own ? ::fdopendir(own.get()) : nullptr);
    if (listing)
        own.release();
    return listing;
}

}  // namespace

Folder::Folder(UniqueFd descriptor, std::string path)
    : descriptor_(std::move(descriptor)), path_(withoutEndingSlashes(std::move(path))) {}

FolderPtr Folder::open(const std::string& name) const {
    return std::make_shared<const Folder>(openOurs(name), pathOf(name));
}

UniqueFd Folder::openOurs(const std::string& name) const {
    UniqueFd opened(::openat(get(), checked(name), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened)
        throw FileWriteError("Impossible to open the folder", pathOf(name), errno);
    const auto status = statusOf(opened.get());
    if (!status)
        throw FileWriteError("Impossible to open the folder", pathOf(name), errno);
    if (!isOurs(*status))
        throw FileWriteError("The folder does not belong to the daemon user, refusing to use", pathOf(name),
                             EPERM);
    return opened;
}

FolderPtr Folder::make(const std::string& name, mode_t mode) const {
    const bool isNew = ::mkdirat(get(), checked(name), mode) == 0;
    if (!isNew && errno != EEXIST)
        throw FileWriteError("Impossible to make the folder", pathOf(name), errno);
    FolderPtr folder = open(name);
    folder->setMode(mode);
    // What is then written into the new folder must not go with it in a power cut.
    if (isNew)
        sync();
    return folder;
}

FolderPtr Folder::makeAnyway(const std::string& name, mode_t mode, const Folder& nursery) const {
    for (unsigned attempt = 1;; ++attempt) {
        try {
            FolderPtr folder = open(name);
            folder->setMode(mode);
            return folder;
        } catch (const FileWriteError& error) {
            const int reason = error.errorNumber();
            if (reason == ENOENT)
                break;
            const bool isInTheWay =
                reason == EPERM || reason == ENOTDIR || reason == ELOOP || reason == EACCES;
            if (!isInTheWay || attempt == kAttempts || (!moveAside(name) && errno != ENOENT))
                throw;
            Log::write(SeverityWarning, "What stood in the place of the folder '" + pathOf(name) +
                                            "' has been moved aside: " + error.what());
        }
    }
    return makeNew(name, mode, nursery, {}).folder;
}

Folder::Filled Folder::makeFilled(const std::string& name, mode_t mode, const Folder& nursery) const {
    return makeNew(name, mode, nursery, nameBeside("kept"));
}

Folder::Filled Folder::makeNew(const std::string& name, mode_t mode, const Folder& nursery,
                               const std::string& file) const {
    for (unsigned attempt = 1;; ++attempt) {
        try {
            return madeIn(nursery, name, mode, file);
        } catch (const FileWriteError& error) {
            const int reason = error.errorNumber();
            if ((reason == EXDEV || reason == EACCES) && &nursery != this)
                return makeNew(name, mode, *this, file);
            // In a folder that others may write: found under its own name, and taken away.
            const bool isTaken = reason == ENOENT || reason == EPERM || reason == ENOTDIR || reason == ELOOP;
            if (!isTaken || attempt == kAttempts)
                throw;
        }
    }
}

Folder::Filled Folder::madeIn(const Folder& nursery, const std::string& name, mode_t mode,
                              const std::string& file) const {
    const std::string fresh = nameBeside(checked(name));
    const Filled made = nursery.filledBelow(fresh, pathOf(name), mode, file);
    if (!putInPlace(nursery, fresh, name)) {
        const int reason = errno;
        nursery.removeFilled(made, fresh);
        throw FileWriteError("Impossible to make the folder", pathOf(name), reason);
    }
    // What is then written into the new folder must not go with it in a power cut.
    sync();
    return made;
}

Folder::Filled Folder::filledBelow(const std::string& fresh, const std::string& path, mode_t mode,
                                   const std::string& file) const {
    if (::mkdirat(get(), fresh.c_str(), 0700) != 0)
        throw FileWriteError("Impossible to make the folder", path, errno);
    Filled made{nullptr, file};
    try {
        made.folder = std::make_shared<const Folder>(openOurs(fresh), path);
        if (!file.empty() && !made.folder->create(file))
            throw FileWriteError("Impossible to make the folder", path, errno);
        made.folder->setMode(mode);
        return made;
    } catch (...) {
        removeFilled(made, fresh);
        throw;
    }
}

void Folder::removeFilled(const Filled& made, const std::string& fresh) const {
    if (made.folder && !made.file.empty())
        static_cast<void>(made.folder->remove(made.file));
    static_cast<void>(::unlinkat(get(), fresh.c_str(), AT_REMOVEDIR));
}

void Folder::setMode(mode_t mode, const std::string& named) const {
    const auto own = statusOf(get());
    if (!own || (own->permissions() != mode && ::fchmod(get(), mode) != 0))
        throw std::runtime_error("Impossible to change mode for " + (named.empty() ? path_ : named));
}

void Folder::setUser(const std::string& user) const {
    const auto uid = userIdOf(user);
    const auto own = statusOf(get());
    if (uid && (!own || (own->uid != *uid && ::fchown(get(), *uid, kUnchangedGroup) != 0)))
        throw std::runtime_error("Impossible to change the user for " + path_);
}

void Folder::setGroup(const std::string& group, const std::string& named) const {
    const auto gid = groupIdOf(group);
    const auto own = statusOf(get());
    const std::string& name = named.empty() ? path_ : named;
    if (gid && (!own || (own->gid != *gid && ::fchown(get(), kUnchangedUser, *gid) != 0)))
        throw std::runtime_error("Runtime error caught while changing group for file '" + name +
                                 "': Impossible to change the group for " + name);
}

std::optional<FileStatus> Folder::status(const std::string& name) const {
    return statusAt(get(), checked(name));
}

UniqueFd Folder::openToLook(const std::string& name) const {
    return UniqueFd(::openat(get(), checked(name), kReading));
}

UniqueFd Folder::openRegular(const std::string& name) const {
    // Looked at before it is opened, since opening a device has effects of its own, and again afterwards.
    const auto before = status(name);
    if (!before)
        return {};
    UniqueFd file;
    if (before->isRegular())
        file = openToLook(name);
    const auto opened = file ? statusOf(file.get()) : std::nullopt;
    if (opened && opened->isRegular() && isTrusted(*opened))
        return file;
    if (file && !opened)
        return {};  // it cannot be told now: with that errno
    if (file || !before->isRegular())
        errno = opened && opened->isRegular() ? EPERM : EINVAL;
    return {};
}

std::string Folder::read(const std::string& name, std::size_t limit) const {
    const UniqueFd file = openRegular(name);
    if (!file && errno == EINVAL)
        throw std::runtime_error("Impossible to read the file '" + pathOf(name) +
                                 "': It is not a regular file");
    if (!file)
        throw FileWriteError("Impossible to read the file", pathOf(name), errno);
    return contentOf(file.get(), pathOf(name), limit);
}

UniqueFd Folder::create(const std::string& name, mode_t mode) const {
    return UniqueFd(::openat(get(), checked(name), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
}

bool Folder::rewrite(const std::string& name, std::string_view content) const {
    const UniqueFd file(
        ::openat(get(), checked(name), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const auto status = file ? statusOf(file.get()) : std::nullopt;
    return status && status->isRegular() && isOurs(*status) && status->links == 1 &&
           ::ftruncate(file.get(), 0) == 0 &&
           ::write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
}

bool Folder::rename(const std::string& from, const std::string& to) const {
    return ::renameat(get(), checked(from), get(), checked(to)) == 0;
}

bool Folder::link(const std::string& from, const std::string& to) const {
    return ::linkat(get(), checked(from), get(), checked(to), 0) == 0;
}

bool Folder::remove(const std::string& name) const {
    return ::unlinkat(get(), checked(name), 0) == 0;
}

bool Folder::putInPlace(const Folder& nursery, const std::string& fresh, const std::string& name) const {
    for (unsigned attempt = 1; ::renameat(nursery.get(), checked(fresh), get(), checked(name)) != 0;
         ++attempt) {
        const bool isInTheWay = errno == EISDIR || errno == ENOTDIR || errno == ENOTEMPTY || errno == EEXIST;
        // Gone by now is as good as moved.
        if (attempt == kAttempts || !isInTheWay || (!moveAside(name) && errno != ENOENT))
            return false;
    }
    return true;
}

std::string Folder::nameBeside(const std::string& name) {
    return "." + name + "." + Tools::getRandomName(kRandomNameLength) + ".aside";
}

bool Folder::moveAside(const std::string& name) const {
    return rename(name, nameBeside(name));
}

UniqueFd Folder::openFifo(const std::string& name) const {
    UniqueFd end = openToLook(name);
    const auto opened = end ? statusOf(end.get()) : std::nullopt;
    // A second name could be that of another service's fifo.
    if (end && (!opened || !opened->isFifo() || !isOurs(*opened) || opened->links != 1)) {
        end.reset();
        errno = EINVAL;
    }
    return end;
}

// Made under a name of its own and given its rights through its open end: by its name it could be something
// else by then.
UniqueFd Folder::makeFifo(const std::string& name, mode_t mode, const std::string& group) const {
    const std::string fresh = nameBeside(checked(name));
    const auto gid = groupIdOf(group);
    if (::mkfifoat(get(), fresh.c_str(), 0600) != 0)
        return {};
    UniqueFd end = openFifo(fresh);
    const bool done =
        end && (!gid || ::fchown(end.get(), kUnchangedUser, *gid) == 0) && ::fchmod(end.get(), mode) == 0;
    if (done && putInPlace(fresh, name))
        return end;
    const int reason = errno;
    static_cast<void>(remove(fresh));
    errno = reason;
    return {};
}

std::vector<std::string> Folder::names() const {
    std::vector<std::string> found;
    const Listing listing = listingOf(get());
    if (!listing)
        throw FileWriteError("Impossible to list the folder", path_, errno);
    errno = 0;
    while (const dirent* const entry = ::readdir(listing.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            found.emplace_back(entry->d_name);
        errno = 0;
    }
    if (errno != 0)
        throw FileWriteError("Impossible to list the folder", path_, errno);
    return found;
}

void Folder::sync() const {
    if (::fsync(get()) != 0 && errno != EINVAL && errno != EBADF)
        throw FileWriteError("Impossible to sync", path_, errno);
}

}  // namespace keywarden
