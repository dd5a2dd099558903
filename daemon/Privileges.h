#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace keywarden {

/// While it lives, files are reached with a user's rights and groups and no more, though the process is root.
/// Does nothing when the process is not root. Throws KeywardenDaemonException when the user is not found,
/// or the system refuses the change: what was to be done as the user is not done as root. Before the first
/// thread only: groups are the whole process's.
class ActingAs {
  public:
    explicit ActingAs(const std::string& user);
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;
    ~ActingAs();

  private:
    void giveBack() const;

    bool acts_ = false;
    std::vector<gid_t> groups_;
};

}  // namespace keywarden
