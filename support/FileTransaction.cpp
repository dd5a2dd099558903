#include "support/FileTransaction.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "support/FileWriteError.h"
#include "support/Log.h"
#include "support/TemporaryFile.h"

namespace keywarden {

FileTransaction::FileTransaction(Journal& journal) : journal_(journal), writer_(journal.folders()) {
    // Before anything is staged: what an unfinished change left beside its targets goes with it.
    if (journal_.isUnfinished())
        journal_.recover();
}

void FileTransaction::stage(const std::string& path, std::string_view content, FileAttributes attributes) {
    const auto status = journal_.folders().status(path);
    if (status && status->isFolder())
        throw FileWriteError("Impossible to put in place", path, EISDIR);
    attributes.synced = journal_.folderOf(path).has_value();
    Step step{Step::Kind::Move, path, {}, {}};
    steps_.reserve(steps_.size() + 1);
    step.temporary = writer_.stage(path, content, attributes).temporaryName;
    steps_.push_back(std::move(step));
}

void FileTransaction::remove(const std::string& path) {
    steps_.push_back({Step::Kind::Remove, path, {}, {}});
}

void FileTransaction::call(std::function<void()> action) {
    steps_.push_back({Step::Kind::Call, {}, {}, std::move(action)});
}

void FileTransaction::together(const std::string& first, const std::string& second) {
    pair_.first = first;
    pair_.second = second;
}

void FileTransaction::commit() {
    refuseWhileUnfinished();
    writer_.syncContents();
    if (needsJournal()) {
        try {
            writeJournal();
        } catch (...) {
            removeEarlier();
            throw;
        }
    }
    run();
}

void FileTransaction::commitAtAnyRate() {
    refuseWhileUnfinished();
    writer_.syncContents();
    if (needsJournal()) {
        try {
            writeJournal();
        } catch (const std::runtime_error& error) {
            Log::write(SeverityError,
                       std::string("A change of files goes on without a journal: ") + error.what());
            goOnWithoutJournal();
        } catch (...) {
            removeEarlier();
            throw;
        }
    }
    run();
}

void FileTransaction::goOnWithoutJournal() {
    try {
        journal_.remember(events_);
    } catch (...) {
        removeEarlier();
        throw;
    }
}

// It would be followed later, over what is changed now.
void FileTransaction::refuseWhileUnfinished() const {
    if (journal_.isUnfinished())
        throw FileWriteError("An earlier change is not finished in", journal_.folders().pathOf(0), EBUSY);
}

bool FileTransaction::needsJournal() const {
    // One that an earlier change had to leave behind must not be followed after this one.
    return durableSteps().size() > 1 || !events_.empty() || journal_.stands();
}

Journal::Steps FileTransaction::durableSteps() const {
    Journal::Steps durable;
    for (const Step& step : steps_) {
        const auto folder = step.kind == Step::Kind::Call ? std::nullopt : journal_.folderOf(step.path);
        // What is not there need not be removed, nor make a change of one file one of two.
        if (folder && (step.kind == Step::Kind::Move || journal_.folders().exists(step.path)))
            durable.push_back({*folder, step.temporary, splitPath(step.path).second});
    }
    return durable;
}

// What the journal names must be there whenever the journal is: the journal's own folder is synced with it.
void FileTransaction::writeJournal() {
    std::set<std::size_t> folders;
    const Journal::Steps steps = durableSteps();
    for (const Journal::Step& step : steps)
        if (!step.temporary.empty() && step.folder != journal_.ownFolder())
            folders.insert(step.folder);
    keepEarlier();
    for (const std::size_t place : folders)
        journal_.folder(place)->sync();
    journal_.write({steps, events_});
    journalled_ = true;
}

// A second name, not a copy: it costs no writing, and leaves no second key on the disk.
void FileTransaction::keepEarlier() {
    if (pair_.first.empty())
        return;
    const FolderSet::File file = journal_.folders().at(pair_.first);
    pair_.folder = file.folder;
    std::string temporary = nameOfTemporary(file.name);
    if (file.folder->link(file.name, temporary))
        pair_.earlier = std::move(temporary);
    pair_.hadEarlier = !pair_.earlier.empty() || file.folder->has(file.name);
}

void FileTransaction::removeEarlier() const {
    if (pair_.earlier.empty())
        return;
    // A second name of a key: once more, where the first attempt failed only for a moment.
    if (!pair_.folder->remove(pair_.earlier) && errno != ENOENT && !pair_.folder->remove(pair_.earlier))
        Log::write(SeverityError, "Failed to remove file '" + pair_.folder->pathOf(pair_.earlier) +
                                      "' : " + std::strerror(errno));
}

void FileTransaction::run() {
    for (const Step& step : steps_) {
        try {
            run(step);
        } catch (...) {
            abandon(step.path);
            throw;
        }
    }
    removeEarlier();
    finish();
}

void FileTransaction::run(const Step& step) {
    switch (step.kind) {
        case Step::Kind::Move:
            writer_.putNextInPlace();
            break;
        case Step::Kind::Remove:
            if (!journal_.folders().remove(step.path) && journal_.folderOf(step.path))
                allRemoved_ = false;
            break;
        case Step::Kind::Call:
            step.action();
            break;
    }
}

void FileTransaction::abandon(const std::string& failed) {
    try {
        journal_.giveUp();
        if (mustPutBack(failed))
            putBack();
        else
            syncFolders(false);
        if (journalled_)
            journal_.discard();
        removeEarlier();
    } catch (const std::runtime_error& error) {
        // The journal that stands, whichever it is, names whole contents: they must stay for it.
        writer_.leaveStaged();
        Log::write(SeverityError,
                   std::string("A change of files that failed stays journalled: ") + error.what());
    } catch (...) {
        writer_.leaveStaged();  // no memory even to say so
    }
}

// The first of the pair is in place by then, the second is not.
bool FileTransaction::mustPutBack(const std::string& failed) const {
    if (pair_.first.empty() || failed == pair_.first)
        return false;
    const auto isStep = [](const std::string& path) {
        return [&path](const Step& step) { return step.path == path; };
    };
    const auto second = std::find_if(steps_.begin(), steps_.end(), isStep(pair_.second));
    return std::find_if(steps_.begin(), steps_.end(), isStep(failed)) <= second;
}

// A change of its own, in the journal's place: until that is written down the earlier journal stands, and
// with it everything new; from then on the way back does.
void FileTransaction::putBack() {
    const FolderSet::File file = journal_.folders().at(pair_.first);
    const auto place = journal_.folderOf(pair_.first);
    if (pair_.hadEarlier && pair_.earlier.empty())
        throw FileWriteError("The earlier file was not kept:", pair_.first, ENOTSUP);
    if (journalled_ && place)
        journal_.write({{{*place, pair_.earlier, file.name}}, {}});
    const bool done = pair_.earlier.empty() ? file.folder->remove(file.name)
                                            : file.folder->rename(pair_.earlier, file.name);
    if (!done && errno != ENOENT)
        throw FileWriteError("Impossible to put back", pair_.first, errno);
    file.folder->sync();
}

void FileTransaction::finish() {
    if (!journalled_) {
        syncFolders(true);
        return;
    }
    // Nothing is lost when this fails: what is journalled will be done, now or at the next start.
    try {
        syncFolders(!allRemoved_);
        if (allRemoved_)
            journal_.finish();
        else
            journal_.finishWithout();
    } catch (const FileWriteError& error) {
        Log::write(SeverityError,
                   std::string("A finished change of files stays journalled: ") + error.what());
    }
}

void FileTransaction::syncFolders(bool withJournalsOwn) const {
    std::set<std::size_t> folders;
    for (const Step& step : steps_) {
        const auto place = step.kind == Step::Kind::Call ? std::nullopt : journal_.folderOf(step.path);
        if (place && (withJournalsOwn || *place != journal_.ownFolder()))
            folders.insert(*place);
    }
    for (const std::size_t place : folders)
        journal_.folder(place)->sync();
}

}  // namespace keywarden
