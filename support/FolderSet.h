#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/FileStatus.h"
#include "support/Folder.h"

namespace keywarden {

/// A file in a folder that others could remove if it were empty; removed with this.
class FilledFolder {
  public:
    explicit FilledFolder(Folder::Filled filled) : filled_(std::move(filled)) {}
    FilledFolder(FilledFolder&&) = default;
    FilledFolder& operator=(FilledFolder&&) = delete;
    FilledFolder(const FilledFolder&) = delete;
    FilledFolder& operator=(const FilledFolder&) = delete;
    ~FilledFolder() {
        // Once more, where the first attempt failed only for a moment.
        if (filled_.folder && !filled_.folder->remove(filled_.file))
            static_cast<void>(filled_.folder->remove(filled_.file));
    }

  private:
    Folder::Filled filled_;
};

/// The folders of one store, each held open from its first use on. Files are named by their paths, as
/// messages need them, and reached through the folder that is held: a path below any other folder is walked
/// as Folder::at walks it. Every operation throws FileWriteError when a folder cannot be opened, unless it
/// says otherwise.
///
/// No lock of its own.
class FolderSet {
  public:
    explicit FolderSet(const std::vector<std::string>& paths);

    struct File {
        FolderPtr folder;
        std::string name;
    };

    [[nodiscard]] std::size_t size() const { return entries_.size(); }
    [[nodiscard]] const std::string& pathOf(std::size_t place) const { return entries_[place].path; }
    /// The place of a path's folder among the folders; none for a path into any other folder.
    [[nodiscard]] std::optional<std::size_t> placeOf(const std::string& path) const;
    [[nodiscard]] const FolderPtr& folder(std::size_t place) const;
    [[nodiscard]] File at(const std::string& path) const;

    /// Opens or makes a folder, which must then belong to the daemon user, with its mode and group. In a
    /// parent that others may write (`shared`), what they put in its place is moved aside. Throws
    /// std::runtime_error, with the text of Tools::changeGroup, also when it cannot be made: that is what is
    /// then noticed.
    void prepare(std::size_t place, mode_t mode, const std::string& group, bool shared);
    /// Whether a path's folder is one that others can remove while it is empty.
    [[nodiscard]] bool isShared(const std::string& path) const;
    /// Makes such a folder again, with a file in it: until the result is destroyed, others cannot remove it
    /// again. Throws as prepare() does.
    [[nodiscard]] FilledFolder remake(const std::string& path) const;
    /// Says once a folder, at WARNING, that it is not where it was made any more.
    void noticeWhetherThere() const;

    /// Throws FileWriteError when it cannot be told: a disk or a kernel that fails for a moment must not make
    /// a file "not there".
    [[nodiscard]] bool exists(const std::string& path) const;
    /// None when nothing stands there. Throws as exists() does.
    [[nodiscard]] std::optional<FileStatus> status(const std::string& path) const;
    /// As Folder::read.
    [[nodiscard]] std::string read(const std::string& path, std::size_t limit) const;
    /// As Common::removeFile: a failure is logged, what is not there is removed. Throws nothing.
    /// Returns whether it is gone.
    bool remove(const std::string& path) const;

    // Of a regular file of ours; what matches already is left alone, since the change time tells dependants
    // of a CA that it was renewed. Throw std::runtime_error with the texts of Tools::changeMode and
    // changeGroup.
    void setMode(const std::string& path, mode_t mode) const;
    void setGroup(const std::string& path, const std::string& group) const;

  private:
    struct Entry {
        std::string path;
        std::string named;  ///< as it was given, for texts
        FolderPtr folder;
        bool isMissingSaid = false;
        // As it was prepared: one that others can remove is made again when they have.
        bool isShared = false;
        mode_t mode = 0;
        std::string group;
    };
    static void prepare(Entry& entry);
    using Making = std::function<FolderPtr(const Folder& parent, const std::string& name)>;
    static void make(Entry& entry, const Making& making);

    // Opened when they are first needed, by whoever only reads as well.
    mutable std::vector<Entry> entries_;
};

}  // namespace keywarden
