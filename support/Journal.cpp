#include "support/Journal.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <istream>
#include <sstream>
#include <stdexcept>

#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/FileWriter.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/TemporaryFile.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr const char* kName = ".journal";
constexpr const char* kFirstLine = "keyward journal 1";
// A revocation of every certificate of a full store is far smaller.
constexpr std::size_t kLargestJournal = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kLongestName = 255;

/// CRC-32, reflected, of the polynomial 0x04C11DB7.
std::string checksumOf(std::string_view text) {
    std::uint32_t sum = ~std::uint32_t{0};
    for (const char character : text) {
        sum ^= static_cast<unsigned char>(character);
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum >> 1U) ^ ((sum & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    std::array<char, 9> digits{};
    static_cast<void>(std::snprintf(digits.data(), digits.size(), "%08x", static_cast<unsigned>(~sum)));
    return digits.data();
}

bool isBaseName(const std::string& name) {
    return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." && name != kName &&
           std::none_of(name.begin(), name.end(), [](unsigned char character) {
               return character == '/' || character <= ' ' || character == 0x7f;
           });
}

/// The whole text of an open file of the daemon's user.
std::string journalIn(int file, const std::string& path) {
    const auto status = statusOf(file);
    if (!status)
        throw FileWriteError("Impossible to look at", path, errno);
    if (!status->isRegular())
        throw std::runtime_error("It is not a regular file");
    if (status->uid != ::geteuid() || (status->mode & 0077U) != 0)
        throw std::runtime_error("It is not the daemon user's alone");
    if (status->size > kLargestJournal)
        throw std::runtime_error("It is too large");
    return contentOf(file, path, kLargestJournal);
}

// What is gone already is done, here and below.
void removeFrom(const Folder& folder, const std::string& name) {
    if (!folder.remove(name) && errno != ENOENT)
        throw FileWriteError("Impossible to remove", folder.pathOf(name), errno);
}

bool moveIn(const Folder& folder, const Journal::Step& step) {
    if (folder.rename(step.temporary, step.name))
        return true;
    if (errno == ENOENT)
        return false;
    throw FileWriteError("Impossible to put in place", folder.pathOf(step.name), errno);
}

}  // namespace

Journal::Journal(const std::vector<std::string>& folders)
    : folders_(std::make_shared<FolderSet>(folders)), durable_(folders.size()) {}

Journal::Journal(const FolderSet& folders, std::size_t durable)
    : folders_(std::shared_ptr<const FolderSet>(), &folders), durable_(durable) {}

std::string Journal::path() const {
    return folders_->pathOf(ownFolder()) + "/" + kName;
}

std::optional<std::size_t> Journal::folderOf(const std::string& path) const {
    const auto place = folders_->placeOf(path);
    return place && *place < durable_ ? place : std::nullopt;
}

bool Journal::stands() const {
    const auto status = folders_->status(path());
    // A folder in its place is none, and stands in the way of one.
    return status && !status->isFolder();
}

std::string Journal::textOf(const Change& change) {
    std::string text = std::string(kFirstLine) + "\n";
    for (const Step& step : change.steps) {
        const std::string folder = std::to_string(step.folder);
        text += step.temporary.empty() ? "remove " + folder + " " + step.name + "\n"
                                       : "move " + folder + " " + step.temporary + " " + step.name + "\n";
    }
    for (const Event& event : change.events) {
        text += "tell";
        for (const std::string& word : event)
            text += " " + word;
        text += "\n";
    }
    return text + "end " + checksumOf(text) + "\n";
}

Journal::Change Journal::parse(const std::string& text) const {
    const std::size_t end = text.rfind("end ");
    if (text.empty() || end == std::string::npos || text.back() != '\n')
        throw std::runtime_error("It has no end");
    if (text.substr(end) != "end " + checksumOf(std::string_view(text).substr(0, end)) + "\n")
        throw std::runtime_error("Its checksum is wrong");
    std::istringstream lines(text.substr(0, end));
    std::string line;
    if (!std::getline(lines, line) || line != kFirstLine)
        throw std::runtime_error("It is of another kind");
    Change change;
    while (std::getline(lines, line))
        parseLine(line, change);
    return change;
}

void Journal::parseLine(const std::string& line, Change& change) const {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word != "tell") {
        change.steps.push_back(parseStep(word, words));
        return;
    }
    Event event;
    while (words >> word)
        event.push_back(word);
    if (event.empty())
        throw std::runtime_error("A line in it tells nothing");
    change.events.push_back(std::move(event));
}

Journal::Step Journal::parseStep(const std::string& word, std::istream& words) const {
    Step step{durable_, {}, {}};
    words >> step.folder;
    if (word == "move")
        words >> step.temporary;
    words >> step.name;
    const bool isMove = word == "move" && targetOfTemporary(step.temporary) == step.name;
    const bool isRemoval = word == "remove";
    std::string more;
    if (!words || words >> more || !(isMove || isRemoval) || step.folder >= durable_ ||
        !isBaseName(step.name))
        throw std::runtime_error("A line in it names no file of the store");
    return step;
}

void Journal::write(const Change& change) {
    FileAttributes attributes;
    attributes.mode = 0600;
    attributes.inOwnFolder = true;
    Change all = change;
    all.events.insert(all.events.begin(), toBeTold_.begin(), toBeTold_.end());
    const Steps leftOver = leftOverBeside(change.steps);
    all.steps.insert(all.steps.begin(), leftOver.begin(), leftOver.end());
    FileWriter writer(*folders_);
    writer.stage(path(), textOf(all), attributes);
    const std::string earlier = keepEarlier();
    try {
        writer.commit();
    } catch (...) {
        // In place it might be, but it cannot be relied on: nothing of it has begun.
        takeBack(earlier);
        throw;
    }
    if (!earlier.empty())
        static_cast<void>(folder(ownFolder())->remove(earlier));
    toldBefore_ = toBeTold_.size();
    toBeTold_ = std::move(all.events);
    leftOver_ = leftOver;
    areStepsDone_ = false;
}

// What the new change does to a file counts.
Journal::Steps Journal::leftOverBeside(const Steps& steps) const {
    Steps beside;
    for (const Step& old : leftOver_)
        if (std::none_of(steps.begin(), steps.end(), [&old](const Step& step) {
                return step.folder == old.folder && step.name == old.name;
            }))
            beside.push_back(old);
    return beside;
}

// What it names may be half done: it is needed until the new one outlives a power cut.
std::string Journal::keepEarlier() const {
    if (!stands())
        return {};
    std::string earlier = nameOfTemporary(kName);
    if (!folder(ownFolder())->link(kName, earlier))
        throw FileWriteError("Impossible to keep", path(), errno);
    return earlier;
}

void Journal::takeBack(const std::string& earlier) const {
    const Folder& own = *folder(ownFolder());
    if (earlier.empty())
        static_cast<void>(own.remove(kName));
    else
        // Two names of one file stay two: then nothing has taken its place, and the second one is too many.
        static_cast<void>(own.rename(earlier, kName) && own.has(earlier) && own.remove(earlier));
}

void Journal::remove() const {
    removeFrom(*folder(ownFolder()), kName);
}

void Journal::finish() {
    areStepsDone_ = true;
    if (toBeTold_.empty() && leftOver_.empty())
        remove();
}

void Journal::told() {
    toBeTold_.clear();
    if (!areStepsDone_ || !leftOver_.empty())
        return;
    try {
        remove();
    } catch (const FileWriteError& error) {
        Log::write(SeverityError, std::string("An event will be told once more: ") + error.what());
    }
}

void Journal::remember(const Events& events) {
    if (stands()) {
        remove();
        folder(ownFolder())->sync();
    }
    toldBefore_ = toBeTold_.size();
    toBeTold_.insert(toBeTold_.end(), events.begin(), events.end());
}

void Journal::finishWithout() {
    areStepsDone_ = true;
}

void Journal::giveUp() {
    toBeTold_.resize(std::min(toBeTold_.size(), toldBefore_));
    toldBefore_ = toBeTold_.size();
}

void Journal::discard() {
    if (toBeTold_.empty() && leftOver_.empty()) {
        remove();
        folder(ownFolder())->sync();
        return;
    }
    write({});
    areStepsDone_ = true;
}

void Journal::recover() {
    try {
        if (stands())
            replay();
        for (std::size_t place = 0; place < durable_; ++place)
            if (statusOfPath(folders_->pathOf(place)))
                removeTemporaries(*folder(place));
    } catch (...) {
        // The temporaries that it names are kept with it, for a start that can finish the work.
        Log::write(SeverityError, "An interrupted change of the store '" + folders_->pathOf(0) +
                                      "' could not be finished: " + Failure::current().text());
    }
}

void Journal::replay() {
    const auto change = read();
    if (!change)
        return;
    const bool isNew = follow(change->steps);
    toBeTold_ = change->events;
    toldBefore_ = toBeTold_.size();
    areStepsDone_ = true;
    // What cannot be removed now is tried again at the next start, and in nobody's way until then.
    if (!leftOver_.empty())
        return;
    finish();
    folder(ownFolder())->sync();
    // Told at the end, with nothing left to do, it is no news.
    if (isNew || change->events.empty())
        Log::write(SeverityNotice, "An interrupted change of the store '" + folders_->pathOf(0) +
                                       "' has been brought to its end.");
}

// None for one that is refused. One that only cannot be read now is not: it may be all that knows how to go
// on.
std::optional<Journal::Change> Journal::read() {
    const FolderPtr& own = folder(ownFolder());
    try {
        const UniqueFd file = own->openToLook(kName);
        if (!file && errno == ELOOP)
            throw std::runtime_error(std::strerror(errno));
        if (!file)
            throw FileWriteError("Impossible to open", path(), errno);
        return parse(journalIn(file.get(), path()));
    } catch (const FileWriteError&) {
        throw;
    } catch (const std::runtime_error& error) {
        Log::write(SeverityError, "The journal '" + path() + "' is refused and removed: " + error.what());
    }
    remove();
    folder(ownFolder())->sync();
    return std::nullopt;
}

// True when something was left to do.
bool Journal::follow(const Steps& steps) {
    bool isNew = false;
    leftOver_.clear();
    for (const Step& step : steps) {
        const Folder& place = *folder(step.folder);
        if (!step.temporary.empty()) {
            isNew = moveIn(place, step) || isNew;
        } else if (place.remove(step.name)) {
            isNew = true;
        } else if (errno != ENOENT) {
            leftOver_.push_back(step);
            Log::write(SeverityError, "An interrupted change of the store '" + folders_->pathOf(0) +
                                          "' could not be finished: Impossible to remove '" +
                                          place.pathOf(step.name) + "': " + std::strerror(errno));
        }
    }
    for (std::size_t place = 0; place < ownFolder(); ++place)
        folder(place)->sync();
    return isNew;
}

}  // namespace keywarden
