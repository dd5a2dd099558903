#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "FaultCalls.h"
#include "Tree.h"

namespace faults {

/// An operation that is ready to be run.
struct Running {
    /// Its return without an exception counts as the confirmation.
    std::function<void()> operation;
    /// After a failure, in the same process, which goes on without any: the faults that it sees, each on a
    /// line of its own. The number tells one run from another. May be empty.
    std::function<std::string(unsigned number)> examine;
};

/// One operation that is cut short or made to fail at each of its system calls.
struct Scenario {
    std::string name;
    /// In a process of its own: what stands before. Its end is the "old" state.
    std::function<void()> prepare;
    /// In a process of its own: gets ready.
    std::function<Running()> begin;
    /// In a process of its own: starts what the operation belongs to, as begin() does.
    std::function<Running()> start;
    /// In a process of its own: starts it too, and says in which state it finds it
    /// ("old", "new" or another word), followed by every fault that it sees, each on a line of its own.
    std::function<std::string()> restart;
    std::set<std::string> unconfirmed = {"old", "new"};  ///< states allowed without a confirmation
    std::set<std::string> confirmed = {"new"};           ///< and after one
};

/// Begins a line of a restart about a file that it does not understand, leaves, and names at WARNING. A
/// fault, unless an operation failed.
constexpr const char* kNamedInWarning = "named in a warning: ";

/// Runs the scenario once for each fault: both ends and each failure at each call, and power cuts after each.
/// Prints how many were injected and survived, and fails the test for each that was not.
void runAllFaults(const Scenario& scenario);

/// The numbers of the calls that fail first.
using FirstFaults = std::function<std::vector<unsigned>(const Calls&)>;

/// The second move of a pair: that of the certificate.
[[nodiscard]] std::vector<unsigned> moveAfterTheKey(const Calls& calls);
/// Of what comes before mark(): the syncs after the moves of a journalled change, and the removal of its
/// journal.
[[nodiscard]] std::vector<unsigned> endOfTheJournal(const Calls& calls);

/// The same with two faults in one operation: the chosen calls fail with EIO, and at each later call (each
/// after mark(), where there is one) comes a second fault.
void runSecondFaults(const Scenario& scenario, const FirstFaults& firsts);

/// The same with an end at each call of the operation, and a second fault at each call of the start that
/// follows it. Every `step`th pair only.
void runFaultsOfRecovery(const Scenario& scenario, unsigned step);

/// Whether FAULTS_ALL asks for every pair of faults, however long that takes.
[[nodiscard]] bool isAllAskedFor();

/// "<fault>\n" for every name in a folder that no start may leave behind.
[[nodiscard]] std::string leftoversIn(const std::string& folder);
[[nodiscard]] std::vector<std::string> namesIn(const std::string& folder);

}  // namespace faults
