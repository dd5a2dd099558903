#pragma once

/// While it lives, the fifos of answers cannot be opened for writing, or cannot be looked at once they are
/// open, for so many attempts: as if all descriptors, or all of the kernel's memory, were in use.
class Scarcity {
  public:
    enum class Of { Open, Look };

    Scarcity(Of what, int error, int attempts);
    Scarcity(const Scarcity&) = delete;
    Scarcity& operator=(const Scarcity&) = delete;
    ~Scarcity();

    /// Attempts that have failed so far.
    [[nodiscard]] static int attempts();
};
