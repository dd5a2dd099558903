#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keywarden {

/// What is about to be done to the files of a few folders, written down before the first of them is touched,
/// so that a start after a power cut can bring it to its end. One journal a store, mode 0600, in a folder
/// that belongs to the daemon's user. It names files by their place among the folders and their base name; it
/// can neither be read nor followed anywhere else.
///
///     keyward journal 1
///     move <folder> .<name>.<process>.<count>.new <name>
///     remove <folder> <name>
///     end <checksum of all lines above, 8 hexadecimal digits>
class Journal {
  public:
    struct Step {
        std::size_t folder;     ///< place among the folders
        std::string temporary;  ///< of a move; empty for a removal
        std::string name;
    };
    using Steps = std::vector<Step>;

    /// The folders whose files outlive a power cut. The journal stands in the last of them.
    explicit Journal(const std::vector<std::string>& folders);

    /// The place of a path's folder among the folders; none for a path into any other folder.
    [[nodiscard]] std::optional<std::size_t> folderOf(const std::string& path) const;
    [[nodiscard]] const std::string& folder(std::size_t place) const { return folders_[place]; }
    /// The place of the journal's own folder.
    [[nodiscard]] std::size_t ownFolder() const { return folders_.size() - 1; }

    [[nodiscard]] bool stands() const;
    /// Takes the place of an earlier one. When it returns, the journal and all that was in its folder before
    /// outlive a power cut. Throws FileWriteError; there is then no journal.
    void write(const Steps& steps) const;
    /// When the steps have been done and outlive a power cut in the other folders. Not synced: the steps in
    /// its own folder came before, and following it once more would change nothing. Throws FileWriteError.
    void remove() const;
    /// Makes the folder's entries last as they are, and the journal's absence: it must not be followed any
    /// more. Throws FileWriteError.
    void discard() const;

    /// What a start does first, before anybody looks at the folders: brings an interrupted change to its end
    /// and removes what other interrupted ones have left beside their targets. A journal that is damaged or
    /// not the daemon user's is refused at ERR and removed. Throws nothing; failures are logged, and a change
    /// that could not be finished stays journalled.
    void recover() const;

    /// The steps of a journal's text. Throws std::runtime_error, which says what is wrong with it.
    [[nodiscard]] Steps parse(const std::string& text) const;
    [[nodiscard]] static std::string textOf(const Steps& steps);

  private:
    [[nodiscard]] Step parseStep(const std::string& line) const;
    [[nodiscard]] bool replay() const;
    void follow(const Steps& steps) const;

    std::vector<std::string> folders_;
};

}  // namespace keywarden
