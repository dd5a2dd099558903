#pragma once

#include <vector>

/// While it lives, chosen calls of the C library's functions fail in this program and its children.
class FailingCalls {
  public:
    enum class Of {
        UserLookUp,    ///< getpwnam_r
        GroupLookUp,   ///< getgrnam_r
        ReadOfAByte,   ///< read(2) of one byte
        WriteOfAByte,  ///< write(2) of one byte
    };
    static constexpr int kAll = 1000000;

    /// From the call of this number on (1: the first), so many.
    FailingCalls(Of function, int error, int first, int count);
    FailingCalls(const FailingCalls&) = delete;
    FailingCalls& operator=(const FailingCalls&) = delete;
    ~FailingCalls();

    /// Whether any has failed.
    [[nodiscard]] static bool wereUsed();
};
