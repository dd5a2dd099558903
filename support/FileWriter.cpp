#include "support/FileWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "support/Accounts.h"
#include "support/FileWriteError.h"
#include "support/TemporaryFile.h"

namespace keywarden {

namespace {

void setOwners(int file, const std::string& path, const FileAttributes& attributes) {
    const auto status = statusOf(file);
    if (!status)
        throw FileWriteError("Impossible to examine", path, errno);
    const auto uid = userIdOf(attributes.user);
    if (uid && *uid != status->uid && ::fchown(file, *uid, static_cast<gid_t>(-1)) != 0)
        throw std::runtime_error("Impossible to change the user for " + path);
    const auto gid = groupIdOf(attributes.group);
    if (gid && *gid != status->gid && ::fchown(file, static_cast<uid_t>(-1), *gid) != 0)
        throw std::runtime_error("Runtime error caught while changing group for file '" + path +
                                 "': Impossible to change the group for " + path);
}

void writeAll(int file, std::string_view content, const std::string& path) {
    while (!content.empty()) {
        const ssize_t written = ::write(file, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw FileWriteError("Impossible to write", path, errno);
        content.remove_prefix(static_cast<std::size_t>(written));
    }
}

void fill(int file, const std::string& path, std::string_view content, const FileAttributes& attributes) {
    setOwners(file, path, attributes);
    if (::fchmod(file, attributes.mode) != 0)
        throw std::runtime_error("Impossible to change mode for " + path);
    writeAll(file, content, path);
    // Started now, the writing of several files becomes one piece of work for the disk; the sync waits for
    // it.
    if (attributes.synced)
        static_cast<void>(::sync_file_range(file, 0, 0, SYNC_FILE_RANGE_WRITE));
}

}  // namespace

FileWriter::~FileWriter() {
    for (const Staged& file : staged_)
        remove(file);
}

// Others may remove a folder that is made again at every start while it is empty.
const FileWriter::Staged& FileWriter::stage(const std::string& path, std::string_view content,
                                            const FileAttributes& attributes) {
    try {
        return stageOnce(path, content, attributes);
    } catch (const FileWriteError& error) {
        if (error.errorNumber() != ENOENT || held_ == nullptr || !held_->isShared(path))
            throw;
    }
    const FilledFolder filled = held_->remake(path);
    forgetFolderOf(path);
    return stageOnce(path, content, attributes);
}

const FileWriter::Staged& FileWriter::stageOnce(const std::string& path, std::string_view content,
                                                const FileAttributes& attributes) {
    const FolderPtr folder = folderOf(path, attributes).folder;
    std::string name = splitPath(path).second;
    staged_.reserve(staged_.size() + 1);
    Staged fresh{path, std::move(name), {}, folder, UniqueFd()};
    UniqueFd file;
    std::tie(file, fresh.temporaryName) = makeTemporary(*folder, fresh.name, path);
    // From here on the destructor removes it: nothing between the two can fail.
    staged_.push_back(std::move(fresh));
    try {
        fill(file.get(), path, content, attributes);
    } catch (...) {
        // Nor may a commit() of the other files put it in place.
        remove(staged_.back());
        staged_.pop_back();
        throw;
    }
    if (attributes.synced)
        staged_.back().content = std::move(file);
    return staged_.back();
}

void FileWriter::remove(const Staged& file) {
    static_cast<void>(file.folder->remove(file.temporaryName));
}

FileWriter::Target& FileWriter::folderOf(const std::string& path, const FileAttributes& attributes) {
    const std::string folder = folderOfPath(path);
    const bool mustBeOurs = attributes.inOwnFolder;
    const auto known = std::find_if(folders_.begin(), folders_.end(), [&](const Target& candidate) {
        return candidate.path == folder && (candidate.ours || !mustBeOurs);
    });
    if (known != folders_.end()) {
        known->synced = known->synced || attributes.synced;
        return *known;
    }
    folders_.push_back({folder, mustBeOurs, attributes.synced, opened(path, mustBeOurs)});
    return folders_.back();
}

void FileWriter::forgetFolderOf(const std::string& path) {
    const std::string folder = folderOfPath(path);
    folders_.erase(std::remove_if(folders_.begin(), folders_.end(),
                                  [&folder](const Target& known) { return known.path == folder; }),
                   folders_.end());
}

FolderPtr FileWriter::opened(const std::string& path, bool mustBeOurs) const {
    if (held_ != nullptr && held_->placeOf(path))
        return held_->at(path).folder;
    return Folder::at(folderOfPath(path), mustBeOurs ? Folder::Owner::Ours : Folder::Owner::Anybody, path);
}

void FileWriter::syncContents() {
    for (Staged& file : staged_) {
        if (file.content && ::fsync(file.content.get()) != 0)
            throw FileWriteError("Impossible to sync", file.path, errno);
        file.content.reset();
    }
}

void FileWriter::putNextInPlace() {
    const Staged& file = staged_.front();
    if (!file.folder->rename(file.temporaryName, file.name))
        throw FileWriteError("Impossible to put in place", file.path, errno);
    staged_.erase(staged_.begin());
}

void FileWriter::syncFolders() const {
    for (const Target& target : folders_)
        if (target.synced)
            target.folder->sync();
}

void FileWriter::commit() {
    syncContents();
    while (!staged_.empty())
        putNextInPlace();
    syncFolders();
}

void FileWriter::write(const std::string& path, std::string_view content, const FileAttributes& attributes) {
    FileWriter writer;
    writer.stage(path, content, attributes);
    writer.commit();
}

}  // namespace keywarden
