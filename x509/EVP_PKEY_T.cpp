#include "x509/EVP_PKEY_T.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <climits>
#include <cstdio>

#include "support/Debug.h"
#include "x509/CryptoFailure.h"
#include "x509/KeyTypes.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/PemText.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

namespace {

const PemFailureTexts kPemFailures = {
    "Failed to allocate memory for BIO for keys",
    "Failed to convert the private key to BIO",
    "Failed to allocate memory to hold keys data during conversion",
    "Error during reading keys from BIO object!",
};

// The bytes that a file BIO has read ahead; overwritten when the file is closed. The C library's own buffer
// would go back to the heap with the key in it.
class ReadAhead {
  public:
    ReadAhead() = default;
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

    void attachTo(BIO* bio) {
        std::FILE* file = nullptr;
        if (BIO_get_fp(bio, &file) == 1 && file != nullptr) {
            static_cast<void>(std::setvbuf(file, bytes_.data(), _IOFBF, bytes_.size()));
        }
    }

  private:
    std::array<char, 4096> bytes_{};
};

EvpPkeyPtr generateKeyPair(const std::string& typeName, int rsaBits) {
    EvpPkeyPtr key(EVP_PKEY_new());
    if (!key) {
        throwCryptoFailure("Creation of new private key failed.");
    }
    debugTrace("Created new private key for the certificate.");
    const KeyType* const type = findKeyType(typeName);
    if (type == nullptr) {
        throwCryptoFailure("Unsupported key format.");
    }
    type->generate(key.get(), rsaBits);
    return key;
}

}  // namespace

void EVP_PKEY_T::Free::operator()(EVP_PKEY* key) const {
    EVP_PKEY_free(key);
}

EVP_PKEY_T::EVP_PKEY_T(const std::string& path) {
    const MemoryWatch watch;
    ReadAhead readAhead;  // outlives the file
    const BioPtr bio(BIO_new(BIO_s_file()));
    if (bio && BIO_read_filename(bio.get(), path.c_str()) == 1) {
        readAhead.attachTo(bio.get());
        key_.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassword, nullptr));
    }
    if (!key_) {
        watch.throwIfRefused();
        throwCryptoFailure("Extract of private key from file failed.");
    }
}

EVP_PKEY_T EVP_PKEY_T::fromPem(const std::string& pem) {
    const MemoryWatch watch;
    EVP_PKEY_T key;
    const BioPtr bio(pem.size() <= INT_MAX ? BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))
                                           : nullptr);
    if (bio) {
        key.key_.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassword, nullptr));
    }
    if (!key.key_) {
        watch.throwIfRefused();
        throwCryptoFailure("Extract of private key from file failed.");
    }
    return key;
}

EVP_PKEY_T::EVP_PKEY_T(const X509_T& certificate) {
    const MemoryWatch watch;
    key_.reset(X509_get_pubkey(certificate.get()));
    watch.throwIfRefused();
    if (!key_) {
        throwCryptoFailure("Extraction of public key failed");
    }
}

// The request's text ends in a full stop, the certificate's does not.
EVP_PKEY_T::EVP_PKEY_T(const X509_REQ_T& request) {
    const MemoryWatch watch;
    key_.reset(X509_REQ_get_pubkey(request.get()));
    watch.throwIfRefused();
    if (!key_) {
        throwCryptoFailure("Extraction of public key failed.");
    }
}

EVP_PKEY_T::EVP_PKEY_T(const kwdata::CCertificateData& settings)
    : key_(generateKeyPair(settings.public_key_type, settings.public_key_size_bits).release()) {}

std::string privateKeyToPem(const EVP_PKEY_T& key) {
    if (key.get() == nullptr) {
        throwCryptoFailure("Invalid keys object for converting to PEM format.");
    }
    return pemText(kPemFailures, [&key](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string getPublicKeyType(const EVP_PKEY_T& key) {
    const KeyType* const type = keyTypeOf(key.get());
    return type == nullptr ? std::string() : std::string(type->description);
}

}  // namespace keywarden
