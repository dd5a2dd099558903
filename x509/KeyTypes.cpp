#include "x509/KeyTypes.h"

#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <algorithm>
#include <array>

#include "x509/KeyGeneration.h"

namespace keywarden {

const std::string KEY_RSA2048 = "RSA2048";
const std::string KEY_PRIME256V1 = "PRIME256V1";
const std::string KEY_SECP256K1 = "SECP256K1";
const std::string KEY_SECP384R1 = "SECP384R1";
const std::string KEY_SECP521R1 = "SECP521R1";
const std::string KEY_ED25519 = "ED25519";

const std::string V3EXT_SUBJ_KEY_IDENTIFIER = "subjectKeyIdentifier";
const std::string V3EXT_BASIC_CONSTRAINTS = "basicConstraints";
const std::string V3EXT_KEY_USAGE = "keyUsage";
const std::string V3EXT_EXT_KEY_USAGE = "extendedKeyUsage";
const std::string V3EXT_SUBJ_ALT_NAME = "subjectAltName";

const std::string PUBLIC_KEY_RSA = "rsa";
const std::string PUBLIC_KEY_DSA = "dsa";
const std::string PUBLIC_KEY_DH = "dh";
const std::string PUBLIC_KEY_ECC = "ecc";
const std::string PUBLIC_KEY_ED25519 = "ed25519";

namespace {

template <int Curve>
void generateOnCurve(EVP_PKEY* key, int /*rsaBits*/) {
    generateEcKey(key, Curve);
}

// A type of key is one row here. The last ones are only recognised, in what others have made.
const auto& keyTypes() {
    static const std::array types = {
        KeyType{KEY_PRIME256V1, EVP_PKEY_EC, generateOnCurve<NID_X9_62_prime256v1>, EVP_sha256,
                PUBLIC_KEY_ECC},
        KeyType{KEY_RSA2048, EVP_PKEY_RSA, generateRsaKey, EVP_sha256, PUBLIC_KEY_RSA},
        KeyType{KEY_SECP384R1, EVP_PKEY_EC, generateOnCurve<NID_secp384r1>, EVP_sha256, PUBLIC_KEY_ECC},
        KeyType{KEY_ED25519, EVP_PKEY_ED25519, generateEd25519Key, nullptr, PUBLIC_KEY_ED25519},
        KeyType{"", EVP_PKEY_DSA, nullptr, EVP_sha256, PUBLIC_KEY_DSA},
        KeyType{"", EVP_PKEY_DH, nullptr, EVP_sha256, PUBLIC_KEY_DH},
    };
    return types;
}

template <typename Condition>
const KeyType* firstWhere(const Condition& condition) {
    const auto* const found = std::find_if(keyTypes().begin(), keyTypes().end(), condition);
    return found == keyTypes().end() ? nullptr : found;
}

}  // namespace

const KeyType* findKeyType(std::string_view name) {
    return firstWhere([&](const KeyType& type) { return type.generate != nullptr && type.name == name; });
}

const KeyType* keyTypeOf(const EVP_PKEY* key) {
    if (key == nullptr) {
        return nullptr;
    }
    const int algorithm = EVP_PKEY_type(EVP_PKEY_get_id(key));
    return firstWhere([&](const KeyType& type) { return type.algorithm == algorithm; });
}

const EVP_MD* signatureDigest(const EVP_PKEY* key) {
    const KeyType* const type = keyTypeOf(key);
    if (type == nullptr) {
        return EVP_sha256();
    }
    return type->digest == nullptr ? nullptr : type->digest();
}

std::vector<std::string> keyTypeNames() {
    std::vector<std::string> names;
    for (const KeyType& type : keyTypes()) {
        if (type.generate != nullptr) {
            names.emplace_back(type.name);
        }
    }
    return names;
}

}  // namespace keywarden
