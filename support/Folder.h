#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/FileStatus.h"
#include "support/UniqueFd.h"

namespace keywarden {

class Folder;
using FolderPtr = std::shared_ptr<const Folder>;

/// A folder that is held open. Every name that is handed to it is one component ("name", not "a/b", not "..")
/// and means what stands in this very folder, whatever becomes of the path that once led to it: somebody who
/// may write the folder above can move this one away or put a link in its place, and nothing here follows.
/// With names of one component and no links followed, no name can lead out of the folder (what openat2(2)
/// calls RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS).
///
/// `path()` and `pathOf()` are for messages.
class Folder {
  public:
    enum class Owner {
        Ours,    ///< belongs to the process's own user; no link in its place
        Anybody  ///< whoever it belongs to
    };

    /// What a removal does about the rest when something cannot be removed.
    enum class AtFailure { GoOn, Stop };

    /// The folder that a configured path leads to. Links on the way are followed only when they belong to
    /// root or to the process's own user, so that nobody else can bend the path; as root, only to root.
    /// `wanted`, when given, is the path that the message names instead. Throws FileWriteError.
    [[nodiscard]] static FolderPtr at(const std::string& path, Owner owner, const std::string& wanted = {});

    Folder(UniqueFd descriptor, std::string path);
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() = default;

    [[nodiscard]] int get() const { return descriptor_.get(); }
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string pathOf(const std::string& name) const { return path_ + "/" + name; }

    // Folders below; they belong to the process's own user, or it is a FileWriteError.
    [[nodiscard]] FolderPtr open(const std::string& name) const;
    /// Opens or makes. What stands there and is no folder of ours is refused.
    [[nodiscard]] FolderPtr make(const std::string& name, mode_t mode) const;
    /// The same in a folder that others may write: what they put there is moved aside, with a WARNING.
    /// A new one is built in `nursery`, a folder that they may not write, unless that stands on another file
    /// system.
    [[nodiscard]] FolderPtr makeAnyway(const std::string& name, mode_t mode, const Folder& nursery) const;
    [[nodiscard]] FolderPtr makeAnyway(const std::string& name, mode_t mode) const {
        return makeAnyway(name, mode, *this);
    }
    /// A new folder that those who may write this one cannot remove (rmdir(2) refuses one that is not empty):
    /// it is built in the nursery, with a file in it, and then put in place, whatever stands there. The file
    /// is the caller's to remove.
    struct Filled {
        FolderPtr folder;
        std::string file;
    };
    [[nodiscard]] Filled makeFilled(const std::string& name, mode_t mode, const Folder& nursery) const;

    /// Whether the path still leads to this folder.
    [[nodiscard]] bool isStillThere() const;

    // Rights of the folder itself. What matches already is left alone; an unknown user or group changes
    // nothing. Throw std::runtime_error with the texts of Tools::changeMode, changeUser and changeGroup,
    // which name the folder as `named`, or else by its path.
    void setMode(mode_t mode, const std::string& named = {}) const;
    void setUser(const std::string& user) const;
    void setGroup(const std::string& group, const std::string& named = {}) const;

    // Files. `errno` tells why there is none or nothing was done.
    [[nodiscard]] std::optional<FileStatus> status(const std::string& name) const;
    [[nodiscard]] bool has(const std::string& name) const { return status(name).has_value(); }
    /// Whatever stands there but a link, opened for reading without waiting for anybody; it is to be looked
    /// at before it is read.
    [[nodiscard]] UniqueFd openToLook(const std::string& name) const;
    /// An open regular file of ours or of root's, for reading. Anything else in its place is not opened:
    /// errno is EINVAL for another kind, EPERM for another owner.
    [[nodiscard]] UniqueFd openRegular(const std::string& name) const;
    /// The bytes of such a file of at most `limit` bytes. Throws FileWriteError when it cannot be opened or
    /// read (ENOENT when nothing stands there), another std::runtime_error when it is none, or is larger.
    [[nodiscard]] std::string read(const std::string& name, std::size_t limit) const;
    /// A new file, open for reading and writing. Nothing may stand in its place.
    [[nodiscard]] UniqueFd create(const std::string& name, mode_t mode = 0600) const;
    /// Another content for a regular file of ours, in place: for a folder that may not be written, where
    /// nothing safer can be had.
    [[nodiscard]] bool rewrite(const std::string& name, std::string_view content) const;
    [[nodiscard]] bool rename(const std::string& from, const std::string& to) const;
    [[nodiscard]] bool link(const std::string& from, const std::string& to) const;
    /// Removes a file of any kind but a folder.
    [[nodiscard]] bool remove(const std::string& name) const;
    /// Puts a file or folder that was made under a name of its own into a place, whatever others have put or
    /// put there meanwhile; what cannot be replaced is moved aside. In one step: the place is never empty.
    [[nodiscard]] bool putInPlace(const std::string& fresh, const std::string& name) const {
        return putInPlace(*this, fresh, name);
    }
    /// The same for one that was made in another folder; false with EXDEV when that is on another file
    /// system.
    [[nodiscard]] bool putInPlace(const Folder& nursery, const std::string& fresh,
                                  const std::string& name) const;
    /// A name beside another one that nobody can have taken before.
    [[nodiscard]] static std::string nameBeside(const std::string& name);
    /// Gives a name to what stands under another one, which it then no longer does. For what others put in a
    /// place that is needed, and that may not be removable.
    [[nodiscard]] bool moveAside(const std::string& name) const;

    /// A new fifo in the name's place, whatever stood there, with its exact mode and group before it has the
    /// name; its read end. A folder in its place is moved aside. An unknown group is left alone.
    [[nodiscard]] UniqueFd makeFifo(const std::string& name, mode_t mode, const std::string& group) const;
    /// The read end of a fifo of ours with one name only; EINVAL for anything else.
    [[nodiscard]] UniqueFd openFifo(const std::string& name) const;

    /// Every name in the folder. Throws FileWriteError when it cannot be listed to its end: half a list would
    /// be taken for all there is.
    [[nodiscard]] std::vector<std::string> names() const;
    /// Removes everything in the folder but the names to keep. Nothing is followed, no folder is entered that
    /// is not reached through this one, and neither depth nor number of what others put here is without a
    /// bound. Returns the first thing that could not be removed, with its errno; nothing when all is gone.
    [[nodiscard]] std::optional<std::string> empty(const std::vector<std::string>& keep = {}) const;
    /// The same of what root has made: folders of root's that nobody else may write, and what is in them. For
    /// root: whatever others had in their hands is left alone.
    void emptyOfRoots() const;
    /// The same for a folder below and the folder itself. What is not there is gone.
    [[nodiscard]] std::optional<std::string> removeTree(const std::string& name,
                                                        AtFailure atFailure = AtFailure::GoOn) const;

    /// Makes the entries survive a power cut. A file system without folder syncs (EINVAL) and a folder that
    /// may not be listed (EBADF) give what they can; any other failure throws FileWriteError.
    void sync() const;

  private:
    [[nodiscard]] UniqueFd openOurs(const std::string& name) const;
    [[nodiscard]] Filled makeNew(const std::string& name, mode_t mode, const Folder& nursery,
                                 const std::string& file) const;
    [[nodiscard]] Filled madeIn(const Folder& nursery, const std::string& name, mode_t mode,
                                const std::string& file) const;
    [[nodiscard]] Filled filledBelow(const std::string& fresh, const std::string& path, mode_t mode,
                                     const std::string& file) const;
    void removeFilled(const Filled& made, const std::string& fresh) const;

    UniqueFd descriptor_;
    std::string path_;
};

/// A folder by its configured path, made with the mode when it is missing (as the umask allows it), given the
/// mode when it is there. None, after a trace, when it cannot be made or opened. Throws std::runtime_error
/// when the mode cannot be set.
[[nodiscard]] FolderPtr createFolder(const std::string& path, mode_t mode);

/// Removes a file or an empty folder by a configured path, walked as Folder::at walks it; a link is removed
/// itself. 0, or the errno.
[[nodiscard]] int removeAt(const std::string& path);

// Paths as texts.

/// A path's folder, the ending slash included ("." when the path names none), and the name in it.
[[nodiscard]] std::pair<std::string, std::string> splitPath(const std::string& path);
/// The folder that a file's path begins with, in the one form in which folders are compared.
[[nodiscard]] std::string folderOfPath(const std::string& path);
/// The path without slashes at its end.
[[nodiscard]] std::string withoutEndingSlashes(std::string path);

}  // namespace keywarden
