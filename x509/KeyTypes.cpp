#include "x509/KeyTypes.h"

namespace keywarden {

const std::string KEY_RSA2048 = "RSA2048";
const std::string KEY_PRIME256V1 = "PRIME256V1";
const std::string KEY_SECP256K1 = "SECP256K1";
const std::string KEY_SECP384R1 = "SECP384R1";
const std::string KEY_SECP521R1 = "SECP521R1";

const std::string V3EXT_SUBJ_KEY_IDENTIFIER = "subjectKeyIdentifier";
const std::string V3EXT_BASIC_CONSTRAINTS = "basicConstraints";
const std::string V3EXT_KEY_USAGE = "keyUsage";
const std::string V3EXT_EXT_KEY_USAGE = "extendedKeyUsage";
const std::string V3EXT_SUBJ_ALT_NAME = "subjectAltName";

const std::string PUBLIC_KEY_RSA = "rsa";
const std::string PUBLIC_KEY_DSA = "dsa";
const std::string PUBLIC_KEY_DH = "dh";
const std::string PUBLIC_KEY_ECC = "ecc";

}  // namespace keywarden
