#include "support/FolderSet.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/Accounts.h"
#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/Log.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

// Others may write the folder above a shared one, but not the one above that.
FolderPtr nurseryOf(const Folder& parent) {
    return Folder::at(folderOfPath(parent.path()), Folder::Owner::Anybody);
}

}  // namespace

FolderSet::FolderSet(const std::vector<std::string>& paths) {
    for (const std::string& path : paths)
        entries_.push_back({withoutEndingSlashes(path), path, nullptr, false, false, 0, std::string()});
}

std::optional<std::size_t> FolderSet::placeOf(const std::string& path) const {
    const std::string folder = folderOfPath(path);
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&folder](const Entry& entry) { return entry.path == folder; });
    if (found == entries_.end())
        return std::nullopt;
    return static_cast<std::size_t>(found - entries_.begin());
}

const FolderPtr& FolderSet::folder(std::size_t place) const {
    Entry& entry = entries_[place];
    if (!entry.folder)
        entry.folder = Folder::at(entry.path, Folder::Owner::Ours);
    const auto status = entry.isShared ? statusOf(entry.folder->get()) : std::nullopt;
    if (status && status->links == 0)
        prepare(entry);
    return entry.folder;
}

FolderSet::File FolderSet::at(const std::string& path) const {
    const std::string name = splitPath(path).second;
    if (const auto place = placeOf(path))
        return {folder(*place), name};
    return {Folder::at(folderOfPath(path), Folder::Owner::Ours, path), name};
}

void FolderSet::prepare(std::size_t place, mode_t mode, const std::string& group, bool shared) {
    Entry& entry = entries_[place];
    entry.isShared = shared;
    entry.mode = mode;
    entry.group = group;
    prepare(entry);
}

void FolderSet::prepare(Entry& entry) {
    make(entry, [&entry](const Folder& parent, const std::string& name) {
        return entry.isShared ? parent.makeAnyway(name, entry.mode, *nurseryOf(parent))
                              : parent.make(name, entry.mode);
    });
    entry.folder->setGroup(entry.group, entry.named);
}

void FolderSet::make(Entry& entry, const Making& making) {
    try {
        const FolderPtr parent = Folder::at(folderOfPath(entry.path), Folder::Owner::Anybody);
        entry.folder = making(*parent, splitPath(entry.path).second);
    } catch (const FileWriteError& error) {
        debugTrace("Impossible to create " + entry.named + ": " + error.what());
        throw std::runtime_error("Runtime error caught while changing group for file '" + entry.named +
                                 "': Impossible to change the group for " + entry.named);
    }
    entry.isMissingSaid = false;
}

bool FolderSet::isShared(const std::string& path) const {
    const auto place = placeOf(path);
    return place && entries_[*place].isShared;
}

FilledFolder FolderSet::remake(const std::string& path) const {
    Entry& entry = entries_[placeOf(path).value()];
    Folder::Filled made;
    make(entry, [&](const Folder& parent, const std::string& name) {
        made = parent.makeFilled(name, entry.mode, *nurseryOf(parent));
        return made.folder;
    });
    FilledFolder filled(std::move(made));
    entry.folder->setGroup(entry.group, entry.named);
    return filled;
}

void FolderSet::noticeWhetherThere() const {
    for (Entry& entry : entries_) {
        if (!entry.folder || entry.isMissingSaid || entry.folder->isStillThere())
            continue;
        entry.isMissingSaid = true;
        Log::write(SeverityWarning,
                   "The folder '" + entry.path +
                       "' is not where the daemon made it any more. What it writes there cannot be "
                       "found until the service is reloaded.");
    }
}

bool FolderSet::exists(const std::string& path) const {
    return status(path).has_value();
}

std::optional<FileStatus> FolderSet::status(const std::string& path) const {
    const auto isNothing = [](int error) { return error == ENOENT || error == ENOTDIR; };
    try {
        const File file = at(path);
        const auto status = file.folder->status(file.name);
        if (!status && !isNothing(errno))
            throw FileWriteError("Impossible to look at", path, errno);
        return status;
    } catch (const FileWriteError& error) {
        if (!isNothing(error.errorNumber()))
            throw;
        return std::nullopt;
    }
}

std::string FolderSet::read(const std::string& path, std::size_t limit) const {
    const File file = at(path);
    return file.folder->read(file.name, limit);
}

bool FolderSet::remove(const std::string& path) const {
    int error = 0;
    try {
        const File file = at(path);
        error = file.folder->remove(file.name) ? 0 : errno;
    } catch (const FileWriteError& failure) {
        error = failure.errorNumber();
    } catch (const std::runtime_error&) {
        error = EIO;  // a shared folder that could not be made again
    }
    const bool isGone = error == 0 || error == ENOENT;
    if (!isGone)
        Log::write(SeverityError, "Failed to remove file '" + path + "' : " + std::strerror(error));
    return isGone;
}

void FolderSet::setMode(const std::string& path, mode_t mode) const {
    const File file = at(path);
    const UniqueFd opened = file.folder->openRegular(file.name);
    const auto status = opened ? statusOf(opened.get()) : std::nullopt;
    if (!status || (status->permissions() != mode && ::fchmod(opened.get(), mode) != 0))
        throw std::runtime_error("Impossible to change mode for " + path);
}

void FolderSet::setGroup(const std::string& path, const std::string& group) const {
    const auto gid = groupIdOf(group);
    if (!gid)
        return;
    const File file = at(path);
    const UniqueFd opened = file.folder->openRegular(file.name);
    const auto status = opened ? statusOf(opened.get()) : std::nullopt;
    if (!status || (status->gid != *gid && ::fchown(opened.get(), static_cast<uid_t>(-1), *gid) != 0))
        throw std::runtime_error("Runtime error caught while changing group for file '" + path +
                                 "': Impossible to change the group for " + path);
}

}  // namespace keywarden
