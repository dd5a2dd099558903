#pragma once

#include <string>

#include "x509/OpenSslPtr.h"

namespace keywarden {

/// A new key pair of a KEY_ type; `rsaBits` counts for RSA only. Throws std::runtime_error.
[[nodiscard]] EvpPkeyPtr generateKeyPair(const std::string& type, int rsaBits);

}  // namespace keywarden
