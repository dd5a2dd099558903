#pragma once

#include <string>
#include <vector>

namespace faults {

/// What happens at one of the system calls that change state.
struct Fault {
    enum class Kind {
        KillBefore,  ///< the process ends, the call has not happened
        KillAfter,   ///< the process ends, the call has happened
        Fail,        ///< the call fails with `error`, the process goes on
        PowerCut  ///< the call has happened, then the device loses what was not synced, and the process ends
    };
    Kind kind = Kind::Fail;
    unsigned call = 0;  ///< counted from 1; one more than there are is the moment after the last
    int error = 0;
    /// PowerCut: the folders, in the order of their paths, whose unsynced entries have reached the disk all
    /// the same, one bit a folder. Contents that were not synced never have.
    unsigned luckyFolders = 0;
};

/// The faults of one run, at different calls; none to count and name the calls.
using Plan = std::vector<Fault>;

/// What a run did: "<function> <path>" of each call.
struct Calls {
    std::vector<std::string> names;
    unsigned beforeMark = 0;  ///< how many of them came before mark()

    [[nodiscard]] unsigned count() const { return static_cast<unsigned>(names.size()); }
};

/// How a process ends at its call.
constexpr int kEnded = 77;

/// From here on the calls count that change what is below `durable` or `fleeting`; a power cut empties the
/// second one altogether. The program replaces the C library's functions; in a test's child only.
void arm(const std::string& durable, const std::string& fleeting, const Plan& plan);
/// The second part of an operation of two begins.
void mark();
/// The calls since arm(). A fault of the moment after the last is carried out here.
Calls disarm();

}  // namespace faults
