#pragma once

#include <string>

namespace keywarden {

// Key-type names of request settings. Only the first two can be generated.
extern const std::string KEY_RSA2048;
extern const std::string KEY_PRIME256V1;
extern const std::string KEY_SECP256K1;
extern const std::string KEY_SECP384R1;
extern const std::string KEY_SECP521R1;

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

}  // namespace keywarden
