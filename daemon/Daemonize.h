#pragma once

namespace keywarden {

/// Forks, unless the parent process is already 1. Returns only in the child, after its parent has written the
/// child's id into the pid file. There is deliberately no setsid, no change of folder and no closing of
/// descriptors.
void daemonize();

}  // namespace keywarden
