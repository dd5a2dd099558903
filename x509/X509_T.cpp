#include "x509/X509_T.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstdio>

#include "support/Failure.h"
#include "support/Log.h"
#include "x509/CryptoFailure.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/PemText.h"

namespace keywarden {

namespace {

// The last text speaks of a private key: the program's wording, known to who reads its log.
const PemFailureTexts kPemFailures = {
    "Failed to allocate memory for BIO",
    "Failed to write certificate to BIO",
    "Failed to allocate memory to hold certificate data during conversion",
    "Error during reading private key from BIO object!",
};

using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

// libcrypto reads past what it finds out beside the certificate itself: its key, and what its extensions say,
// which it would note down at the first question about them. Had it no memory for that, the certificate would
// stay an unusable one for as long as it lives.
void requireWhole(X509* certificate, const MemoryWatch& reading) {
    if (certificate == nullptr || X509_get0_pubkey(certificate) == nullptr) {
        reading.throwIfRefused();
        ERR_clear_error();  // a kind of key that libcrypto does not know
    }
    if (certificate != nullptr) {
        const MemoryWatch noting;
        X509_check_purpose(certificate, -1, 0);
        noting.throwIfRefused();
    }
}

}  // namespace

void X509_T::Free::operator()(X509* certificate) const {
    X509_free(certificate);
}

X509_T::X509_T(const std::string& path) {
    const MemoryWatch watch;
    const File file(std::fopen(path.c_str(), "re"), &std::fclose);
    if (file) {
        certificate_.reset(PEM_read_X509(file.get(), nullptr, refusePassword, nullptr));
    }
    requireWhole(certificate_.get(), watch);
    if (!certificate_) {
        throwCryptoFailure("Failed to read certificate from file: " + path);
    }
}

X509_T X509_T::fromPem(const std::string& pem) {
    const MemoryWatch watch;
    X509_T certificate;
    if (pem.size() <= INT_MAX) {
        const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        if (bio) {
            certificate.certificate_.reset(PEM_read_bio_X509(bio.get(), nullptr, refusePassword, nullptr));
        }
    }
    requireWhole(certificate.get(), watch);
    if (certificate.get() == nullptr) {
        throwCryptoFailure("Failed to read certificate from text.");
    }
    return certificate;
}

std::string X509_T::toPem() const {
    if (!certificate_) {
        throwCryptoFailure("Invalid certificate object for converting to PEM format.");
    }
    return pemText(kPemFailures, [this](BIO* bio) { return PEM_write_bio_X509(bio, certificate_.get()); });
}

bool X509_T::operator==(const X509_T& other) const {
    try {
        return toPem() == other.toPem();
    } catch (...) {
        Log::write(SeverityError,
                   Failure::current().message("std::exception caught: ", "Unknown exception caught."));
    }
    return false;
}

}  // namespace keywarden
