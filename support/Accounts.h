#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace keywarden {

struct UserEntry {
    std::string name;
    uid_t uid;
    gid_t gid;  ///< the primary group
};

struct GroupEntry {
    std::string name;
    gid_t gid;
    std::vector<std::string> members;
};

/// Entries of the account databases, copied out, so that any thread may ask while another does. Nothing when
/// there is no entry or the databases cannot be read.
std::optional<UserEntry> findUser(const std::string& name);
std::optional<UserEntry> findUser(uid_t uid);
std::optional<GroupEntry> findGroup(const std::string& name);

/// The lines of /etc/group as they stand; none when it cannot be read.
std::vector<std::string> groupFileLines();

/// The numbers alone; nothing for an unknown or empty name.
std::optional<uid_t> userIdOf(const std::string& name);
std::optional<gid_t> groupIdOf(const std::string& name);

}  // namespace keywarden
