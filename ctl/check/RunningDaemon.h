#pragma once

#include <sys/types.h>

namespace keywardctl::check {

struct Subject;

/// The process of the daemon's pid file; 0 when none of that number lives or it is another program by now.
[[nodiscard]] pid_t runningDaemon(const Subject& subject);

/// Whether the process has the group. True where that cannot be seen: nothing is known against it.
[[nodiscard]] bool hasGroup(pid_t process, gid_t group);

}  // namespace keywardctl::check
