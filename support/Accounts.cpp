#include "support/Accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <sstream>
#include <stdexcept>

#include "support/RegularFile.h"

namespace keywarden {

namespace {

constexpr std::size_t kFirstBufferSize = 1024;
// Far above any real entry: a database that keeps asking for more is broken, and its entry counts as missing.
constexpr std::size_t kLastBufferSize = std::size_t{16} << 20U;
constexpr std::size_t kLargestGroupFile = kLastBufferSize;

/// Calls a `_r` look-up with a growing buffer. The entry's texts stand in `buffer`.
template <typename Entry, typename LookUp>
bool lookUpEntry(LookUp&& lookUp, Entry& entry, std::vector<char>& buffer) {
    for (buffer.resize(kFirstBufferSize); buffer.size() <= kLastBufferSize;) {
        Entry* found = nullptr;
        const int error = lookUp(&entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE)
            buffer.resize(buffer.size() * 2);
        else if (error != EINTR)
            return error == 0 && found != nullptr;
    }
    return false;
}

template <typename LookUp>
std::optional<UserEntry> lookUpUser(LookUp&& lookUp) {
    passwd entry{};
    std::vector<char> buffer;
    if (!lookUpEntry(lookUp, entry, buffer))
        return std::nullopt;
    return UserEntry{entry.pw_name, entry.pw_uid, entry.pw_gid};
}

std::vector<std::string> memberNames(const group& entry) {
    std::vector<std::string> names;
    for (char** member = entry.gr_mem; member != nullptr && *member != nullptr; ++member)
        names.emplace_back(*member);
    return names;
}

}  // namespace

std::optional<UserEntry> findUser(const std::string& name) {
    return lookUpUser([&name](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
    });
}

std::optional<UserEntry> findUser(uid_t uid) {
    return lookUpUser([uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return ::getpwuid_r(uid, entry, buffer, size, found);
    });
}

std::optional<GroupEntry> findGroup(const std::string& name) {
    group entry{};
    std::vector<char> buffer;
    const auto lookUp = [&name](group* wanted, char* texts, std::size_t size, group** found) {
        return ::getgrnam_r(name.c_str(), wanted, texts, size, found);
    };
    if (!lookUpEntry(lookUp, entry, buffer))
        return std::nullopt;
    return GroupEntry{entry.gr_name, entry.gr_gid, memberNames(entry)};
}

std::vector<std::string> groupFileLines() {
    std::vector<std::string> lines;
    try {
        std::istringstream file(readRegularFile("/etc/group", kLargestGroupFile));
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
    } catch (const std::runtime_error&) {
        // Whoever needs a group says by name that it is not there.
    }
    return lines;
}

std::optional<uid_t> userIdOf(const std::string& name) {
    const auto entry = name.empty() ? std::nullopt : findUser(name);
    return entry ? std::optional<uid_t>(entry->uid) : std::nullopt;
}

std::optional<gid_t> groupIdOf(const std::string& name) {
    const auto entry = name.empty() ? std::nullopt : findGroup(name);
    return entry ? std::optional<gid_t>(entry->gid) : std::nullopt;
}

}  // namespace keywarden
