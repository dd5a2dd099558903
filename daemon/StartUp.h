#pragma once

#include <functional>
#include <string>
#include <vector>

namespace keywarden {

// The steps of the start-up, in the order in which main calls them. Those that never return on failure end
// the process through exitDaemon; the others throw.

/// Opens the log and honours "-d", when it is the only argument.
void openLogAndReadOptions(int argc, char* const argv[]);

/// Signals that stop the daemon wait until somebody takes them; broken pipes are errors of a write, not
/// signals; the three standard descriptors are taken, so that no file of the daemon becomes one of them.
void prepareProcess();

/// Loads the daemon's configuration and checks its accounts. Never returns on failure.
void initCheck();

/// Takes the lock file. Never returns on failure.
void checkLock();
/// checkLock, with what escapes it logged and the process ended.
void lockInstance();

/// As root: empties and recreates the named-pipes directory, makes the keyward directory, gives both to the
/// daemon user. Never returns on failure.
void prepareDirectories();

/// Runs the rest of the start-up; what escapes it is logged and ends the process with code 12.
void runGuarded(const std::function<void()>& rest);

/// While the process is root: no program that it runs later can get a capability any more. Left alone where
/// the daemon user is root. A failure is only logged.
void limitCapabilities();

/// Writes the pid file and becomes the daemon user. Throws KeywardenDaemonException.
void initDaemon();

/// After that: no capability (unless the process is still root), no new privileges for it and for what it
/// runs, and no core dump of it, nor a look into its memory by other processes of its user. Before the first
/// thread: each has its own privileges. Failures are only logged.
void giveUpPrivileges();

/// The platform script must be executable by now. Never returns on failure.
void checkNetworkScript();

void createFileArchitecture();

/// The configured services, those whose names begin with "pki" first. Learns the network before.
std::vector<std::string> orderedServiceNames();
std::vector<std::string> pkiFirst(const std::vector<std::string>& names);

/// A service that cannot be constructed is logged and left out. Throws when none is left.
void constructServices(const std::vector<std::string>& names);

/// All timers, then all command handlers.
void startServices();

void createNotificationFifo();

/// Notification thread, monitor thread (when its two settings are valid) and, last, the signal watcher, so
/// that it always finds what it has to cancel.
void startThreads();

/// Says that the daemon runs: to the log, to every service's owner, by the readiness marker.
void announce();

/// Gives the system back what the start needed and the long wait does not: free heap, and the pages of
/// programs and libraries that can be read again from their files.
void giveBackStartUpMemory();

/// Returns when the notification and monitor threads have ended.
void joinThreads();

}  // namespace keywarden
