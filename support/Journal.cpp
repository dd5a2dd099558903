#include "support/Journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/FileWriter.h"
#include "support/Log.h"
#include "support/OwnFolder.h"
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

std::string pathIn(const std::string& folder, const std::string& name) {
    return folder + "/" + name;
}

/// The whole text of an open file of the daemon's user.
std::string contentOf(int file) {
    struct stat info {};
    if (::fstat(file, &info) != 0 || !S_ISREG(info.st_mode))
        throw std::runtime_error("It is not a regular file");
    if (info.st_uid != ::geteuid() || (info.st_mode & 0077U) != 0)
        throw std::runtime_error("It is not the daemon user's alone");
    if (static_cast<std::uint64_t>(info.st_size) > kLargestJournal)
        throw std::runtime_error("It is too large");
    std::string content(static_cast<std::size_t>(info.st_size), '\0');
    if (::pread(file, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size()))
        throw std::runtime_error("It cannot be read");
    return content;
}

// What is gone already is done.
void removeRegularFile(int folder, const std::string& name, const std::string& path) {
    struct stat info {};
    if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
        return;
    if (::unlinkat(folder, name.c_str(), 0) != 0 && errno != ENOENT)
        throw FileWriteError("Impossible to remove", path, errno);
}

}  // namespace

Journal::Journal(const std::vector<std::string>& folders) {
    for (const std::string& folder : folders)
        folders_.push_back(folderOfPath(folder + "/"));
}

std::optional<std::size_t> Journal::folderOf(const std::string& path) const {
    const auto found = std::find(folders_.begin(), folders_.end(), folderOfPath(path));
    if (found == folders_.end())
        return std::nullopt;
    return static_cast<std::size_t>(found - folders_.begin());
}

bool Journal::stands() const {
    struct stat info {};
    return ::lstat(pathIn(folders_.back(), kName).c_str(), &info) == 0;
}

std::string Journal::textOf(const Steps& steps) {
    std::string text = std::string(kFirstLine) + "\n";
    for (const Step& step : steps) {
        const std::string folder = std::to_string(step.folder);
        text += step.temporary.empty() ? "remove " + folder + " " + step.name + "\n"
                                       : "move " + folder + " " + step.temporary + " " + step.name + "\n";
    }
    return text + "end " + checksumOf(text) + "\n";
}

Journal::Steps Journal::parse(const std::string& text) const {
    const std::size_t end = text.rfind("end ");
    if (text.empty() || end == std::string::npos || text.back() != '\n')
        throw std::runtime_error("It has no end");
    if (text.substr(end) != "end " + checksumOf(std::string_view(text).substr(0, end)) + "\n")
        throw std::runtime_error("Its checksum is wrong");
    std::istringstream lines(text.substr(0, end));
    std::string line;
    if (!std::getline(lines, line) || line != kFirstLine)
        throw std::runtime_error("It is of another kind");
    Steps steps;
    while (std::getline(lines, line))
        steps.push_back(parseStep(line));
    return steps;
}

Journal::Step Journal::parseStep(const std::string& line) const {
    std::istringstream words(line);
    std::string word;
    Step step{folders_.size(), {}, {}};
    words >> word >> step.folder;
    if (word == "move")
        words >> step.temporary;
    words >> step.name;
    const bool isMove = word == "move" && targetOfTemporary(step.temporary) == step.name;
    const bool isRemoval = word == "remove";
    std::string more;
    if (!words || words >> more || !(isMove || isRemoval) || step.folder >= folders_.size() ||
        !isBaseName(step.name))
        throw std::runtime_error("A line in it names no file of the store");
    return step;
}

void Journal::write(const Steps& steps) const {
    FileAttributes attributes;
    attributes.mode = 0600;
    attributes.inOwnFolder = true;
    const std::string path = pathIn(folders_.back(), kName);
    FileWriter writer;
    writer.stage(path, textOf(steps), attributes);
    try {
        writer.commit();
    } catch (...) {
        // In place it might be, but it cannot be relied on: nothing of it has begun.
        ::unlink(path.c_str());
        throw;
    }
}

void Journal::remove() const {
    const std::string path = pathIn(folders_.back(), kName);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        throw FileWriteError("Impossible to remove", path, errno);
}

void Journal::discard() const {
    remove();
    syncFolder(folders_.back());
}

void Journal::recover() const {
    try {
        if (stands() && !replay())
            return;
    } catch (...) {
        // The temporaries that it names are kept with it, for a start that can finish the work.
        Log::write(SeverityError, "An interrupted change of the store '" + folders_.front() +
                                      "' could not be finished: " + Failure::current().text());
        return;
    }
    for (const std::string& folder : folders_)
        removeTemporaries(folder);
}

// False when it stands in a folder in which nothing can be done.
bool Journal::replay() const {
    const std::string path = pathIn(folders_.back(), kName);
    const UniqueFd folder = openFolder(folders_.back(), path, true);
    Steps steps;
    try {
        const UniqueFd file(
            ::openat(folder.get(), kName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!file)
            throw std::runtime_error(std::strerror(errno));
        steps = parse(contentOf(file.get()));
    } catch (...) {
        Log::write(SeverityError,
                   "The journal '" + path + "' is refused and removed: " + Failure::current().text());
        discard();
        return true;
    }
    follow(steps);
    discard();
    Log::write(SeverityNotice,
               "An interrupted change of the store '" + folders_.front() + "' has been brought to its end.");
    return true;
}

void Journal::follow(const Steps& steps) const {
    std::vector<UniqueFd> opened;
    opened.reserve(folders_.size());
    for (const std::string& folder : folders_)
        opened.push_back(openFolder(folder, pathIn(folder, kName), true));
    for (const Step& step : steps) {
        const int folder = opened[step.folder].get();
        const std::string path = pathIn(folders_[step.folder], step.name);
        if (step.temporary.empty())
            removeRegularFile(folder, step.name, path);
        else if (::renameat(folder, step.temporary.c_str(), folder, step.name.c_str()) != 0 &&
                 errno != ENOENT)
            throw FileWriteError("Impossible to put in place", path, errno);
    }
    for (std::size_t place = 0; place < ownFolder(); ++place)
        syncFolder(opened[place].get(), folders_[place]);
}

}  // namespace keywarden
