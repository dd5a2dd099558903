#include "support/FileTransaction.h"

#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <set>

#include "support/Common.h"
#include "support/FileWriteError.h"
#include "support/Log.h"
#include "support/OwnFolder.h"
#include "support/Tools.h"

namespace keywarden {

void FileTransaction::stage(const std::string& path, std::string_view content, FileAttributes attributes) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        throw FileWriteError("Impossible to put in place", path, EISDIR);
    attributes.synced = journal_.folderOf(path).has_value();
    const FileWriter::Staged& staged = writer_.stage(path, content, attributes);
    steps_.push_back({Step::Kind::Move, path, staged.temporaryName, {}});
}

void FileTransaction::remove(const std::string& path) {
    steps_.push_back({Step::Kind::Remove, path, {}, {}});
}

void FileTransaction::call(std::function<void()> action) {
    steps_.push_back({Step::Kind::Call, {}, {}, std::move(action)});
}

void FileTransaction::commit() {
    writer_.syncContents();
    if (needsJournal())
        writeJournal();
    run();
}

void FileTransaction::commitAtAnyRate() {
    writer_.syncContents();
    if (needsJournal()) {
        try {
            writeJournal();
        } catch (const FileWriteError& error) {
            Log::write(SeverityError,
                       std::string("A change of files goes on without a journal: ") + error.what());
        }
    }
    run();
}

bool FileTransaction::needsJournal() const {
    // One that an earlier change had to leave behind must not be followed after this one.
    return durableSteps().size() > 1 || journal_.stands();
}

Journal::Steps FileTransaction::durableSteps() const {
    Journal::Steps durable;
    for (const Step& step : steps_) {
        const auto folder = step.kind == Step::Kind::Call ? std::nullopt : journal_.folderOf(step.path);
        // What is not there need not be removed, nor make a change of one file one of two.
        if (folder && (step.kind == Step::Kind::Move || Tools::fileExist(step.path)))
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
    for (const std::size_t place : folders)
        syncFolder(journal_.folder(place));
    journal_.write(steps);
    journalled_ = true;
}

void FileTransaction::run() {
    try {
        for (const Step& step : steps_)
            run(step);
    } catch (...) {
        abandon();
        throw;
    }
    finish();
}

void FileTransaction::run(const Step& step) {
    switch (step.kind) {
        case Step::Kind::Move:
            writer_.putNextInPlace();
            break;
        case Step::Kind::Remove:
            Common::removeFile(step.path);
            if (journal_.folderOf(step.path) && Tools::fileExist(step.path))
                allRemoved_ = false;
            break;
        case Step::Kind::Call:
            step.action();
            break;
    }
}

void FileTransaction::abandon() {
    if (repair_)
        repair_();
    if (!journalled_)
        return;
    try {
        syncFolders(false);
        journal_.discard();
    } catch (const FileWriteError& error) {
        Log::write(SeverityError,
                   std::string("A change of files that failed stays journalled: ") + error.what());
    }
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
            journal_.remove();
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
        syncFolder(journal_.folder(place));
}

}  // namespace keywarden
