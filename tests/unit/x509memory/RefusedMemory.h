#pragma once

#include <cstdint>

/// While it lives, one request for memory of this process is refused; those before and after it are met. What
/// libcrypto and the daemon's own code ask for counts, operator new included.
class RefusedMemory {
  public:
    /// The `request`-th from now on, counting from 1.
    explicit RefusedMemory(std::uint64_t request);
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
    ~RefusedMemory();

    [[nodiscard]] static bool struck();
};
