#pragma once

#include <string>

/// While it lives, one call of a libcrypto or C-library function fails; the others go through. Which
/// functions can fail is listed in CryptoFault.cpp. A test asks struck(), so that a fault that never came is
/// noticed.
class CryptoFault {
  public:
    enum class Kind {
        Failure,         ///< the function's own way to fail
        EmptyThrow,      ///< throws a std::runtime_error without text
        NoStandardThrow  ///< throws what is no std::exception
    };

    /// The `call`-th call from now on, counting from 1. Calls that libcrypto makes itself go through.
    explicit CryptoFault(const std::string& function, int call = 1, Kind kind = Kind::Failure);
    CryptoFault(const CryptoFault&) = delete;
    CryptoFault& operator=(const CryptoFault&) = delete;
    ~CryptoFault();

    [[nodiscard]] static bool struck();

    /// For the functions in CryptoFault.cpp; `caller` is the address they return to. isDue() leaves the
    /// throwing out, for functions that may not throw.
    [[nodiscard]] static bool isDue(const char* function, const void* caller) noexcept;
    [[nodiscard]] static bool strikes(const char* function, const void* caller);
};

/// How often a password was asked for on the terminal since the start of the program. It is never given.
int passwordPrompts();
