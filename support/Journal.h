#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/FolderSet.h"

namespace keywarden {

/// What is about to be done to the files of a few folders, written down before the first of them is touched,
/// so that a start after a power cut can bring it to its end. One journal a store, mode 0600, in a folder
/// that belongs to the daemon's user. It names files by their place among the folders and their base name; it
/// can neither be read nor followed anywhere else.
///
///     keyward journal 1
///     move <folder> .<name>.<process>.<count>.new <name>
///     remove <folder> <name>
///     tell <word> [<word> ...]
///     end <checksum of all lines above, 8 hexadecimal digits>
///
/// "tell" is an event that the owner has to be told of when the steps are done. Such a journal stays until
/// told() says so: the event outlives whatever ends the process before.
///
/// No lock of its own.
class Journal {
  public:
    struct Step {
        std::size_t folder;     ///< place among the folders
        std::string temporary;  ///< of a move; empty for a removal
        std::string name;
    };
    using Steps = std::vector<Step>;
    /// A few words of letters, digits and points.
    using Event = std::vector<std::string>;
    using Events = std::vector<Event>;

    struct Change {
        Steps steps;
        Events events;
    };

    /// The folders whose files outlive a power cut. The journal stands in the last of them.
    explicit Journal(const std::vector<std::string>& folders);
    /// The same of the first `durable` folders of a set, which outlives this.
    Journal(const FolderSet& folders, std::size_t durable);
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    [[nodiscard]] const FolderSet& folders() const { return *folders_; }
    /// The place of a path's folder among the folders; none for a path into any other folder.
    [[nodiscard]] std::optional<std::size_t> folderOf(const std::string& path) const;
    [[nodiscard]] const FolderPtr& folder(std::size_t place) const { return folders_->folder(place); }
    /// The place of the journal's own folder.
    [[nodiscard]] std::size_t ownFolder() const { return durable_ - 1; }

    [[nodiscard]] bool stands() const;
    /// Whether a change stands that was not brought to its end: recover() before any other is begun.
    [[nodiscard]] bool isUnfinished() const { return !areStepsDone_ && stands(); }
    /// Whether an earlier run's change left something that cannot be removed: recover() tries again, other
    /// changes need not wait for it.
    [[nodiscard]] bool hasLeftOver() const { return !leftOver_.empty(); }
    /// What is still to be told, also that of earlier changes, in order.
    [[nodiscard]] const Events& toBeTold() const { return toBeTold_; }

    /// Takes the place of an earlier one; events that are still to be told go with it. When it returns, the
    /// journal and all that was in its folder before outlive a power cut. Throws FileWriteError; an earlier
    /// one then stands as before.
    void write(const Change& change);
    /// When the steps have been done and outlive a power cut in the other folders. Not synced: the steps in
    /// its own folder came before, and following it once more would change nothing. Stays while there is
    /// something to tell. Throws FileWriteError.
    void finish();
    /// The steps have been done as far as they could be: some file cannot be removed. The journal stays, for
    /// the next start to try again, and is in the way of no other change.
    void finishWithout();
    /// Events of a change that goes on without a journal: told by this process, or by nobody. An earlier
    /// journal would be followed after that change: it is removed. Throws FileWriteError when it cannot be.
    void remember(const Events& events);
    /// The events have been told. Not synced: at worst they are told once more. Throws nothing.
    void told();
    /// The change that was written last has failed: its events are not to be told.
    void giveUp();
    /// Makes the folder's entries last as they are, and the absence of the journal's steps: they must not be
    /// followed any more. Throws FileWriteError.
    void discard();

    /// What a start does first, before anybody looks at the folders, and what precedes a change when an
    /// earlier one was not finished: brings an interrupted change to its end and removes what other
    /// interrupted ones have left beside their targets. A journal that is damaged or not the daemon user's is
    /// refused at ERR and removed. Throws nothing; failures are logged, and a change that could not be
    /// finished stays journalled.
    void recover();

    /// What a journal's text says. Throws std::runtime_error, which says what is wrong with it.
    [[nodiscard]] Change parse(const std::string& text) const;
    [[nodiscard]] static std::string textOf(const Change& change);

  private:
    void parseLine(const std::string& line, Change& change) const;
    [[nodiscard]] Step parseStep(const std::string& word, std::istream& words) const;
    void replay();
    [[nodiscard]] std::optional<Change> read();
    [[nodiscard]] bool follow(const Steps& steps);
    [[nodiscard]] Steps leftOverBeside(const Steps& steps) const;
    [[nodiscard]] std::string keepEarlier() const;
    void takeBack(const std::string& earlier) const;
    void remove() const;
    [[nodiscard]] std::string path() const;

    std::shared_ptr<const FolderSet> folders_;
    std::size_t durable_;
    Events toBeTold_;
    Steps leftOver_;              ///< removals of an earlier run that cannot be done yet
    std::size_t toldBefore_ = 0;  ///< how many of them are of earlier changes than the last
    /// Of the journal that stands: only its events are left.
    bool areStepsDone_ = false;
};

}  // namespace keywarden
