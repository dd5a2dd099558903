#include "x509/Extensions.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <map>
#include <sstream>

#include "support/Debug.h"
#include "support/Log.h"
#include "x509/KeyTypes.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"

namespace keywarden {

namespace {

// The issuer, subject and request that a value such as "hash" refers to. There is no configuration file: a
// value that names a section of one is rejected. No memory for one is no rejection: std::bad_alloc.
X509ExtensionPtr buildExtension(X509* certificate, X509_REQ* request, int nid, const char* value) {
    const MemoryWatch watch;
    X509V3_CTX context = {};
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, request, nullptr, 0);
    X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    watch.throwIfRefused();
    if (!extension) {
        ERR_clear_error();
    }
    return extension;
}

// The names of the list that OpenSSL does not take on their own, joined by commas.
std::string badNamesOf(const std::string& value) {
    std::string bad;
    std::istringstream names(value);
    names.exceptions(std::ios::badbit);  // no memory for a name is not the end of them
    std::string name;
    while (std::getline(names, name, ',')) {
        if (!buildExtension(nullptr, nullptr, NID_subject_alt_name, name.c_str())) {
            bad += (bad.empty() ? "" : ",") + name;
        }
    }
    return bad;
}

bool hasExtensionOf(const X509* certificate, const ASN1_OBJECT* object) {
    return X509_get_ext_by_OBJ(certificate, object, -1) >= 0;
}

}  // namespace

int extensionNid(const std::string& name) {
    static const std::map<std::string, int> nids = {
        {V3EXT_SUBJ_KEY_IDENTIFIER, NID_subject_key_identifier},
        {V3EXT_BASIC_CONSTRAINTS, NID_basic_constraints},
        {V3EXT_KEY_USAGE, NID_key_usage},
        {V3EXT_EXT_KEY_USAGE, NID_ext_key_usage},
        {V3EXT_SUBJ_ALT_NAME, NID_subject_alt_name},
    };
    const auto found = nids.find(name);
    return found == nids.end() ? NID_undef : found->second;
}

bool add_ext(STACK_OF(X509_EXTENSION) * stack, int nid, const char* value, X509_REQ* req) {
    if (stack == nullptr) {
        Log::write(SeverityError,
                   "Received empty stack of extensions object or empty certificate request object");
        return false;
    }
    const MemoryWatch watch;
    X509ExtensionPtr extension = buildExtension(nullptr, req, nid, value);
    if (!extension || sk_X509_EXTENSION_push(stack, extension.get()) <= 0) {
        watch.throwIfRefused();
        return false;
    }
    static_cast<void>(extension.release());  // the stack owns it now
    return true;
}

bool add_cert_ext(X509_T& cert, int nid, const char* value) {
    const MemoryWatch watch;
    const X509ExtensionPtr extension = buildExtension(cert.get(), nullptr, nid, value);
    if (!extension) {
        return false;
    }
    X509_add_ext(cert.get(), extension.get(), -1);
    watch.throwIfRefused();
    return true;
}

bool pki_ossl_copy_extensions(const X509_REQ_T& csr, X509_T& cert) {
    const MemoryWatch watch;
    const OwnedExtensions extensions(X509_REQ_get_extensions(csr.get()));
    watch.throwIfRefused();
    // A request without any gives an empty list as well as none.
    if (!extensions || sk_X509_EXTENSION_num(extensions.get()) == 0) {
        debugTrace("No extensions found on CSR\n");
        ERR_clear_error();
        return false;
    }
    for (int index = 0; index < sk_X509_EXTENSION_num(extensions.get()); ++index) {
        X509_EXTENSION* extension = sk_X509_EXTENSION_value(extensions.get(), index);
        const ASN1_OBJECT* object = X509_EXTENSION_get_object(extension);
        if (object == nullptr || hasExtensionOf(cert.get(), object)) {
            continue;
        }
        if (X509_add_ext(cert.get(), extension, -1) != 1) {
            // The index is the one of the look-up in the certificate, where it was not found.
            Log::write(SeverityInfo, "Unable to copy extension idx: -1");
            ERR_clear_error();
            return false;
        }
    }
    return true;
}

void reportRejectedExtension(int nid, const std::string& value) {
    const std::string text = std::string("Extension ") + OBJ_nid2sn(nid) +
                             " is left out, its value is not accepted: '" + value + "'";
    if (nid != NID_subject_alt_name) {
        debugTrace(text);
        return;
    }
    Log::write(SeverityError, text + " (because of '" + badNamesOf(value) + "')");
}

}  // namespace keywarden
