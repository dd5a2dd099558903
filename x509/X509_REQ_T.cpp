#include "x509/X509_REQ_T.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <climits>

#include "support/Debug.h"
#include "support/Log.h"
#include "x509/CryptoFailure.h"
#include "x509/Extensions.h"
#include "x509/KeyTypes.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/PemText.h"
#include "x509/SubjectName.h"

namespace keywarden {

namespace {

const PemFailureTexts kPemFailures = {
    "Failed to allocate memory for BIO for Csr",
    "Failed to write certificate to BIO for Csr",
    "Failed to allocate memory to hold Csr data during conversion",
    "Error during reading Csr from BIO object!",
};

void addExtension(STACK_OF(X509_EXTENSION) * stack, const kwdata::v3Ext& extension, X509_REQ* request) {
    if (extension.short_name.empty()) {
        return;
    }
    const int nid = extensionNid(extension.obj_id);
    if (nid == NID_undef) {
        Log::write(SeverityInfo, "v3Extension not found while adding extension to CSR");
    } else if (!add_ext(stack, nid, extension.short_name.c_str(), request)) {
        reportRejectedExtension(nid, extension.short_name);
    }
}

void addExtensions(X509_REQ* request, const std::vector<kwdata::v3Ext>& extensions) {
    const OwnedExtensions stack(sk_X509_EXTENSION_new_null());
    if (!stack) {
        throwCryptoFailure("Failed to initialize Stack of extensions object.");
    }
    for (const kwdata::v3Ext& extension : extensions) {
        addExtension(stack.get(), extension, request);
    }
    // An empty list of extensions has no valid encoding.
    if (sk_X509_EXTENSION_num(stack.get()) > 0 && X509_REQ_add_extensions(request, stack.get()) != 1) {
        throwCryptoFailure("Failed to add the extensions to the CSR.");
    }
}

// libcrypto reads past a key that it has no memory for.
void requireKey(X509_REQ* request, const MemoryWatch& reading) {
    if (request == nullptr || X509_REQ_get0_pubkey(request) == nullptr) {
        reading.throwIfRefused();
        ERR_clear_error();  // a kind of key that libcrypto does not know
    }
}

}  // namespace

void X509_REQ_T::Free::operator()(X509_REQ* request) const {
    X509_REQ_free(request);
}

X509_REQ_T::X509_REQ_T(const std::string& path) {
    const MemoryWatch watch;
    const BioPtr bio(BIO_new_file(path.c_str(), "r"));
    watch.throwIfRefused();
    if (!bio) {  // mostly a missing file; the text is the program's wording
        throwCryptoFailure("Failed allocate memory for BIO buffer during loading csr file: " + path);
    }
    request_.reset(PEM_read_bio_X509_REQ(bio.get(), nullptr, refusePassword, nullptr));
    requireKey(request_.get(), watch);
    if (!request_) {
        throwCryptoFailure("Failed to read csr from BIO buffer for file " + path);
    }
}

X509_REQ_T X509_REQ_T::fromPem(const std::string& pem) {
    const MemoryWatch watch;
    X509_REQ_T request;
    const BioPtr bio(pem.size() <= INT_MAX ? BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))
                                           : nullptr);
    if (bio) {
        request.request_.reset(PEM_read_bio_X509_REQ(bio.get(), nullptr, refusePassword, nullptr));
    }
    requireKey(request.request_.get(), watch);
    if (!request.request_) {
        throwCryptoFailure("Failed to read csr from the text.");
    }
    return request;
}

X509_REQ_T::X509_REQ_T(const kwdata::CCertificateData& settings, const EVP_PKEY_T& key) {
    debugTrace("Creating new x509 certificate signing request...");
    X509ReqPtr request(X509_REQ_new());
    if (!request) {
        throwCryptoFailure("Failed to create new X509_REQ object: ");
    }
    const MemoryWatch watch;
    X509_REQ_set_version(request.get(), settings.cert_version - 1L);
    const bool hasKey = X509_REQ_set_pubkey(request.get(), key.get()) == 1;
    addSubjectEntries(X509_REQ_get_subject_name(request.get()), settings.subject);
    addExtensions(request.get(), settings.v3Extention);
    // What is left out, or was set by halves, must not be signed.
    watch.throwIfRefused();
    debugTrace("Signing the x509 CSR with the private key...");
    if (!hasKey || X509_REQ_sign(request.get(), key.get(), signatureDigest(key.get())) <= 0) {
        throwCryptoFailure("Failed to sign the CSR.");
    }
    debugTrace("Creating new x509 certificate signing request... Done.");
    request_.reset(request.release());
}

std::string x509CsrToPem(const X509_REQ_T& request) {
    if (request.get() == nullptr) {
        throwCryptoFailure("Invalid Csr object for converting to PEM format.");
    }
    return pemText(kPemFailures, [&request](BIO* bio) { return PEM_write_bio_X509_REQ(bio, request.get()); });
}

}  // namespace keywarden
