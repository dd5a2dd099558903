#pragma once

#include <openssl/types.h>

#include <functional>
#include <string>

namespace keywarden {

/// What each failing step of a conversion to PEM is reported as.
struct PemFailureTexts {
    const char* bio;
    const char* write;
    const char* allocate;
    const char* readBack;
};

/// The text that `write` puts into a memory BIO (1 is success). No copy but the result is left behind in
/// memory. Throws std::runtime_error with the step's text.
[[nodiscard]] std::string pemText(const PemFailureTexts& texts, const std::function<int(BIO*)>& write);

/// The password callback of every PEM reader: encrypted text is an error, never a prompt on a terminal.
int refusePassword(char* buffer, int size, int forWriting, void* userData);

}  // namespace keywarden
