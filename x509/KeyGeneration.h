#pragma once

#include <openssl/types.h>

namespace keywarden {

// Each makes a new pair in the empty key and throws std::runtime_error.

void generateRsaKey(EVP_PKEY* key, int bits);
/// `curve` is a NID; the key names it.
void generateEcKey(EVP_PKEY* key, int curve);
void generateEd25519Key(EVP_PKEY* key, int bits);  ///< of one size: the bits do not count

}  // namespace keywarden
