#pragma once

namespace keywarden {

/// Forks, unless the parent process is already 1. Returns only in the child, after its parent has written the
/// child's id into the pid file. Forked or not, the process then has a session of its own, without a
/// controlling terminal, where the system lets it, and its standard streams as releaseStandardStreams()
/// leaves them. The folder and the other descriptors have been seen to at the beginning.
void daemonize();

}  // namespace keywarden
