#pragma once

#include <openssl/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace keywarden {

// Key-type names of request settings. What can be made of them has a row in KeyTypes.cpp.
extern const std::string KEY_RSA2048;
extern const std::string KEY_PRIME256V1;
extern const std::string KEY_SECP256K1;
extern const std::string KEY_SECP384R1;
extern const std::string KEY_SECP521R1;
extern const std::string KEY_ED25519;

// Names of the v3 extensions that a request can carry.
extern const std::string V3EXT_SUBJ_KEY_IDENTIFIER;
extern const std::string V3EXT_BASIC_CONSTRAINTS;
extern const std::string V3EXT_KEY_USAGE;
extern const std::string V3EXT_EXT_KEY_USAGE;
extern const std::string V3EXT_SUBJ_ALT_NAME;

// What getPublicKeyType answers.
extern const std::string PUBLIC_KEY_RSA;
extern const std::string PUBLIC_KEY_DSA;
extern const std::string PUBLIC_KEY_DH;
extern const std::string PUBLIC_KEY_ECC;
extern const std::string PUBLIC_KEY_ED25519;

/// All that the program knows of one type of key.
struct KeyType {
    std::string_view name;  ///< the value of CONFIG_KEY; empty for keys that others make
    int algorithm;          ///< libcrypto's number of it (EVP_PKEY_)
    /// Makes a new pair in the empty key; null for keys that others make. Throws std::runtime_error.
    void (*generate)(EVP_PKEY* key, int rsaBits);
    const EVP_MD* (*digest)();     ///< of the signatures that its keys make; null: made without
    std::string_view description;  ///< what getPublicKeyType answers
};

/// The type that can be made by that name; null when there is none.
[[nodiscard]] const KeyType* findKeyType(std::string_view name);

/// The first type of the key's algorithm: digest and description are the same for all of one algorithm. Null
/// for no key and for an algorithm without a row.
[[nodiscard]] const KeyType* keyTypeOf(const EVP_PKEY* key);

/// The digest that the key signs with, null when it signs without: SHA-256 when nothing is known of its type.
[[nodiscard]] const EVP_MD* signatureDigest(const EVP_PKEY* key);

/// The names that can be made, in the order in which they are told to people.
[[nodiscard]] std::vector<std::string> keyTypeNames();

}  // namespace keywarden
