#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "FaultCalls.h"
#include "Tree.h"

namespace faults {

/// One operation that is cut short or made to fail at each of its system calls.
struct Scenario {
    std::string name;
    /// In a process of its own: what stands before. Its end is the "old" state.
    std::function<void()> prepare;
    /// In a process of its own: gets ready, and returns the operation, whose return without an exception
    /// counts as the confirmation.
    std::function<std::function<void()>()> begin;
    /// In a process of its own: starts what the operation belongs to, and says in which state it finds it
    /// ("old", "new" or another word), followed by every fault that it sees, each on a line of its own.
    std::function<std::string()> restart;
    std::set<std::string> unconfirmed = {"old", "new"};  ///< states allowed without a confirmation
    std::set<std::string> confirmed = {"new"};           ///< and after one
};

/// Runs the scenario once for each fault: both ends and each failure at each call, and power cuts after each.
/// Prints how many were injected and survived, and fails the test for each that was not.
void runAllFaults(const Scenario& scenario);

/// "<fault>\n" for every name in a folder that no start may leave behind.
[[nodiscard]] std::string leftoversIn(const std::string& folder);
[[nodiscard]] std::vector<std::string> namesIn(const std::string& folder);

}  // namespace faults
