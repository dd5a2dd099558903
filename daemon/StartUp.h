#pragma once

#include <functional>
#include <string>
#include <vector>

namespace keywarden {

// The steps of the start-up, in the order in which main calls them. Those that never return on failure end
// the process through exitDaemon; the others throw.

/// Closes what the starter has left open beside the three standard streams. Before anything else: whatever is
/// open later is then the daemon's own. Nobody has to keep a list of it, and nothing of the starter is there
/// even while the daemon is root.
void closeInheritedDescriptors();

/// Opens the log and honours "-d", when it is the only argument.
void openLogAndReadOptions(int argc, char* const argv[]);

/// Signals that stop the daemon wait until somebody takes them; broken pipes are errors of a write, not
/// signals; the end of the starter's terminal is no end of the daemon; the three standard descriptors are
/// taken, so that no file of the daemon becomes one of them. The working folder is "/", so that a path means
/// the same throughout.
void prepareProcess();

/// Loads the daemon's configuration and checks its accounts. Never returns on failure.
void initCheck();

/// Takes the lock file. Never returns on failure.
void checkLock();
/// checkLock, with what escapes it logged and the process ended.
void lockInstance();

/// Runs everything: what escapes the guards of the steps, for want of memory, ends the process with code 12.
/// Lock and pid file are removed only when this process has taken the lock. Other than standard exceptions
/// pass.
void runToTheEnd(const std::function<void()>& steps);

/// As root: empties and recreates the named-pipes directory, makes the keyward directory, gives both to the
/// daemon user. Never returns on failure.
void prepareDirectories();

/// Runs the rest of the start-up; what escapes it is logged and ends the process with code 12.
void runGuarded(const std::function<void()>& rest);

/// While the process is root: no program that it runs later can get a capability any more. Left alone where
/// the daemon user is root. A failure is only logged.
void limitCapabilities();

/// Writes the pid file and becomes the daemon user. Throws KeywardenDaemonException, also when that user is
/// not found any more; a change of identity that the system refuses is only logged.
void initDaemon();

/// After that: no capability (unless the process is still root), no new privileges for it and for what it
/// runs, and no core dump of it, nor a look into its memory by other processes of its user. Before the first
/// thread: each has its own privileges. Failures are only logged.
void giveUpPrivileges();

/// Leaves PATH (or a usual one), TZ, LANG, and TMPDIR where the daemon user may write there: so once it is
/// the daemon user, and before the first script, since scripts inherit it. Nothing that a service manager
/// hands over is of use to them or to the daemon.
void cleanEnvironment();

/// Standard input and output, and without "-d" standard error, become /dev/null.
void releaseStandardStreams();

/// The platform script must be executable by now. Never returns on failure.
void checkNetworkScript();

void createFileArchitecture();

/// The configured services, those whose names begin with "pki" first. Learns the network before.
std::vector<std::string> orderedServiceNames();
std::vector<std::string> pkiFirst(const std::vector<std::string>& names);

/// A service that cannot be constructed is logged and left out. Throws when none is left.
void constructServices(const std::vector<std::string>& names);

/// All timers, then all command handlers. A handler whose pipe files cannot be made is logged and starts
/// later.
void startServices();

void createNotificationFifo();

/// Notification thread, monitor thread (when its two settings are valid) and, last, the signal watcher, so
/// that it always finds what it has to cancel.
void startThreads();

/// Says that the daemon runs: to the log, to every service's owner, by the readiness marker.
void announce();

/// Gives the system back what the start needed and the long wait does not: free heap and unused stack.
void giveBackStartUpMemory();

/// Returns when the notification and monitor threads have ended.
void joinThreads();

}  // namespace keywarden
