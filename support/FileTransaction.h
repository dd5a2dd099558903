#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "support/FileWriter.h"
#include "support/Journal.h"

namespace keywarden {

/// A change of several files of a store that outlives a power cut at any moment as the old state or the new
/// one, never as a mix: everything new is staged and synced beside its place, the steps are journalled, done
/// in the order in which they were added, made to last, and the journal is removed. A start finishes what it
/// finds journalled and discards the rest (Journal::recover).
///
/// Only steps in the journal's folders count for that; files elsewhere (what is made again at every start)
/// are moved in their turn, but neither synced nor journalled. A change of one file needs no journal.
///
/// A change that an earlier one left unfinished is brought to its end first; while it cannot be, nothing else
/// is changed.
class FileTransaction {
  public:
    explicit FileTransaction(Journal& journal);

    /// FileWriter::stage, whose exceptions it throws; the steps before stay added. A folder in the file's
    /// place is refused at once: its rename would fail only after the files before it are in place.
    void stage(const std::string& path, std::string_view content, FileAttributes attributes);
    /// FolderSet::remove in its turn. What cannot be removed is logged, and stays journalled for the next
    /// change or start.
    void remove(const std::string& path);
    /// Runs in its turn; must not throw.
    void call(std::function<void()> action);
    /// An event that the owner has to be told of when the change is done (Journal).
    void tell(Journal::Event event) { events_.push_back(std::move(event)); }

    /// Two staged files, in this order, that are of use only together. When the second cannot be put in
    /// place, the first one's earlier file is put back, whatever ends the process meanwhile: with the same
    /// guarantee, old or new.
    void together(const std::string& first, const std::string& second);

    /// Throws FileWriteError. When a content or the journal cannot be written nothing has changed; when a
    /// file cannot be put in place the steps before it are done, and those after it never will be, or, where
    /// not even that can be written down, all will be: by the next change or start.
    void commit();
    /// The same, but without a journal where none can be written: for a change that must be tried all the
    /// same.
    void commitAtAnyRate();

  private:
    struct Step {
        enum class Kind { Move, Remove, Call } kind;
        std::string path;
        std::string temporary;
        std::function<void()> action;
    };
    struct Pair {
        std::string first;
        std::string second;
        std::string
            earlier;  ///< temporary that is a second name of the first one's earlier file; empty: none
        bool hadEarlier = false;
        FolderPtr folder;  ///< the first one's
    };

    void refuseWhileUnfinished() const;
    [[nodiscard]] bool needsJournal() const;
    [[nodiscard]] Journal::Steps durableSteps() const;
    void writeJournal();
    void goOnWithoutJournal();
    void keepEarlier();
    void removeEarlier() const;
    void run();
    void run(const Step& step);
    void abandon(const std::string& failed);
    [[nodiscard]] bool mustPutBack(const std::string& failed) const;
    void putBack();
    void finish();
    void syncFolders(bool withJournalsOwn) const;

    Journal& journal_;
    FileWriter writer_;
    std::vector<Step> steps_;
    Journal::Events events_;
    Pair pair_;
    bool journalled_ = false;
    bool allRemoved_ = true;
};

}  // namespace keywarden
