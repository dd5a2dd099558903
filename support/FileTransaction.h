#pragma once

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
class FileTransaction {
  public:
    explicit FileTransaction(const Journal& journal) : journal_(journal) {}

    /// FileWriter::stage, whose exceptions it throws; the steps before stay added. A folder in the file's
    /// place is refused at once: its rename would fail only after the files before it are in place.
    void stage(const std::string& path, std::string_view content, FileAttributes attributes);
    /// Common::removeFile in its turn. What cannot be removed is logged, and stays journalled for the next
    /// start.
    void remove(const std::string& path);
    /// Runs in its turn; must not throw.
    void call(std::function<void()> action);

    /// When a file cannot be put in place, `repair` runs before the journal is given up: a start after a
    /// crash in between still finishes the change. Must not throw.
    void onFailure(std::function<void()> repair) { repair_ = std::move(repair); }

    /// Throws FileWriteError. When a content or the journal cannot be written nothing has changed; when a
    /// file cannot be put in place the steps before it are done, and those after it never will be.
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

    [[nodiscard]] bool needsJournal() const;
    [[nodiscard]] Journal::Steps durableSteps() const;
    void writeJournal();
    void run();
    void run(const Step& step);
    void abandon();
    void finish();
    void syncFolders(bool withJournalsOwn) const;

    const Journal& journal_;
    FileWriter writer_;
    std::vector<Step> steps_;
    std::function<void()> repair_;
    bool journalled_ = false;
    bool allRemoved_ = true;
};

}  // namespace keywarden
