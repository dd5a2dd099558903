#pragma once

#include <string>

namespace keywarden {

/// Empties the thread's queue of libcrypto errors, so that none of them is met by a later call, and throws
/// std::runtime_error with the text.
[[noreturn]] void throwCryptoFailure(const std::string& message);

}  // namespace keywarden
