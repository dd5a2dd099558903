#pragma once

#include <string>

namespace faults {

/// What happens at one of the system calls that change state.
struct Plan {
    enum class Kind {
        Count,       ///< nothing
        KillBefore,  ///< the process ends, the call has not happened
        KillAfter,   ///< the process ends, the call has happened
        Fail,        ///< the call fails with `error`, the process goes on
        PowerCut  ///< the call has happened, then the device loses what was not synced, and the process ends
    };
    Kind kind = Kind::Count;
    unsigned call = 0;  ///< counted from 1; one more than there are is the moment after the last
    int error = 0;
    /// PowerCut: the folders, in the order of their paths, whose unsynced entries have reached the disk all
    /// the same, one bit a folder. Contents that were not synced never have.
    unsigned luckyFolders = 0;
};

/// How a process ends at its call.
constexpr int kEnded = 77;

/// From here on the calls count that change what is below `durable` or `fleeting`; a power cut empties the
/// second one altogether. The program replaces the C library's functions; in a test's child only.
void arm(const std::string& durable, const std::string& fleeting, const Plan& plan);
/// The number of calls since arm(). A plan for the moment after the last is carried out here.
unsigned disarm();

}  // namespace faults
