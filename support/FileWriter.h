#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "support/Folder.h"
#include "support/FolderSet.h"
#include "support/UniqueFd.h"

namespace keywarden {

/// What a written file ends up with.
struct FileAttributes {
    mode_t mode = 0644;
    std::string group;  ///< by name; empty or unknown: the writer's own
    std::string user;   ///< by name; empty or unknown: the writer's own
    /// The folder must belong to the daemon's user and not be a link: set for everything that stands in the
    /// stores, whose upper folders a service's management group may write. A store's folders are held open.
    bool inOwnFolder = false;
    /// Not set for what is made again at every start: it need not survive a power cut, and is not synced.
    bool synced = true;
};

/// Writes files so that no reader and no power cut ever meets a half-written one, or one with wider rights
/// than its final ones: each is written beside its place at 0600, gets its owner, group and mode, its
/// content, is synced, and is then renamed over the old one; the folder is synced last.
///
/// stage() does all up to the sync, commit() the syncs of the contents, the renames in staging order and one
/// sync a folder. What is not committed is removed by the destructor; the old files are then untouched.
/// A change of several files that must be seen whole or not at all is a FileTransaction.
class FileWriter {
  public:
    struct Staged {
        std::string path;
        std::string name;
        std::string temporaryName;
        FolderPtr folder;
        UniqueFd content;  ///< open until it has been synced; none when it need not be
    };

    FileWriter() = default;
    /// Files in one of these folders are written through the folder that is held; they outlive this.
    explicit FileWriter(const FolderSet& held) : held_(&held) {}
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;
    ~FileWriter();

    /// Throws FileWriteError when the file cannot be made or written, and std::runtime_error with the texts
    /// of Tools::changeMode, changeUser and changeGroup (naming `path`) when its rights cannot be set. The
    /// files staged before stay so.
    const Staged& stage(const std::string& path, std::string_view content, const FileAttributes& attributes);

    /// Throws FileWriteError when a rename or a sync fails; the files before it are in place. When a content
    /// cannot be synced no file is put in place.
    void commit();

    /// One file, staged and committed.
    static void write(const std::string& path, std::string_view content, const FileAttributes& attributes);

    // commit(), step by step, for who has more to do between the steps. Each throws FileWriteError.
    void syncContents();
    /// The file that was staged first and is not in place yet.
    void putNextInPlace();
    void syncFolders() const;
    /// Leaves what is not in place where it is staged: a journal names it.
    void leaveStaged() { staged_.clear(); }

  private:
    struct Target {
        std::string path;
        bool ours;
        bool synced;
        FolderPtr folder;
    };

    const Staged& stageOnce(const std::string& path, std::string_view content,
                            const FileAttributes& attributes);
    static void remove(const Staged& file);
    void forgetFolderOf(const std::string& path);
    Target& folderOf(const std::string& path, const FileAttributes& attributes);
    [[nodiscard]] FolderPtr opened(const std::string& path, bool mustBeOurs) const;

    const FolderSet* held_ = nullptr;
    std::vector<Target> folders_;
    std::vector<Staged> staged_;
};

}  // namespace keywarden
