#pragma once

/// While it lives, an allocation of the calling thread fails, or all from there on.
class NoMemory {
  public:
    static constexpr int kAll = 1000000;

    /// From this allocation on (1: the first), so many.
    explicit NoMemory(int first, int count = 1);
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
    ~NoMemory();

    /// Whether any has failed.
    [[nodiscard]] static bool wasMet();
};
