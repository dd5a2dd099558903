#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/FileStatus.h"

namespace keywardctl::check {

constexpr unsigned kRead = 4;
constexpr unsigned kWrite = 2;
constexpr unsigned kSearch = 1;  ///< of a folder; of a file it is to run it
constexpr unsigned kRun = 1;

enum class Access { Granted, Refused, Missing, Unknown };

struct AccessAnswer {
    Access access = Access::Granted;
    std::string where;   ///< the folder or file that refuses, is missing or could not be looked at
    std::string reason;  ///< why it is unknown
};

/// The account that the daemon becomes: its user, the group of the same name and the groups that it sets.
/// What it may do is worked out from modes, owners and groups, never tried; access lists and security modules
/// are not considered.
class Identity {
  public:
    /// As the daemon finds the groups. An unknown user owns nothing.
    explicit Identity(const std::string& user);

    [[nodiscard]] bool isKnown() const { return known_; }
    [[nodiscard]] uid_t uid() const { return uid_; }
    [[nodiscard]] gid_t gid() const { return gid_; }

    /// Whether every folder on the way may be searched and what stands at the end be used (kRead and so on).
    [[nodiscard]] AccessAnswer access(const std::string& path, unsigned wanted) const;

  private:
    [[nodiscard]] bool mayUse(const keywarden::FileStatus& status, unsigned wanted) const;
    [[nodiscard]] AccessAnswer walk(const std::string& path, unsigned wanted) const;

    bool known_ = false;
    uid_t uid_ = static_cast<uid_t>(-1);
    gid_t gid_ = static_cast<gid_t>(-1);
    std::vector<gid_t> groups_;
};

/// The folder that a path stands in; "/" for the root itself.
[[nodiscard]] std::string parentOf(const std::string& path);

}  // namespace keywardctl::check
