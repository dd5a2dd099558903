#pragma once

#include <cstdint>

namespace keywarden {

/// Tells when libcrypto got no memory for what it was asked to do. By its results alone that cannot be told:
/// it leaves out what it had no memory for, or fails as it does for bad input. One watch covers the calls
/// that this thread makes while it lives.
class MemoryWatch {
  public:
    MemoryWatch();  ///< Empties the thread's queue of libcrypto errors.

    /// Throws std::bad_alloc, after emptying the queue, when libcrypto was refused memory since the watch
    /// began.
    void throwIfRefused() const;

    /// Has libcrypto's requests counted, for the whole process, which makes the watches exact; without it
    /// they look through the queue of errors. Has no effect once libcrypto has asked for memory.
    static void countRequests();

  private:
    std::uint64_t refusedBefore_;
};

}  // namespace keywarden
