#include "tests/unit/x509/CryptoFault.h"

// The functions below include some that OpenSSL marks deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <stdexcept>

// The program's own code, between the two ends that the linker names.
extern "C" const char __executable_start;
extern "C" const char etext;

namespace {

struct NoStandardException {};

struct ArmedFault {
    std::string function;
    int callsLeft = 0;
    CryptoFault::Kind kind = CryptoFault::Kind::Failure;
    bool struck = false;
};

ArmedFault armed;
int prompts = 0;

bool isOfThisProgram(const void* address) {
    return address >= &__executable_start && address < &etext;
}

/// The function of that name that stands behind ours.
template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

CryptoFault::CryptoFault(const std::string& function, int call, Kind kind) {
    armed = {function, call, kind, false};
}

CryptoFault::~CryptoFault() {
    armed = ArmedFault();
}

bool CryptoFault::struck() {
    return armed.struck;
}

bool CryptoFault::isDue(const char* function, const void* caller) noexcept {
    if (armed.callsLeft == 0 || !isOfThisProgram(caller) || armed.function != function ||
        --armed.callsLeft > 0) {
        return false;
    }
    armed.struck = true;
    return true;
}

bool CryptoFault::strikes(const char* function, const void* caller) {
    if (!isDue(function, caller)) {
        return false;
    }
    if (armed.kind == Kind::EmptyThrow) {
        throw std::runtime_error("");
    }
    if (armed.kind == Kind::NoStandardThrow) {
        throw NoStandardException();
    }
    return true;
}

int passwordPrompts() {
    return prompts;
}

extern "C" {

int EVP_read_pw_string_min(char* /*buffer*/, int /*minimum*/, int /*size*/, const char* /*prompt*/,
                           int /*verify*/) {
    ++prompts;
    return -1;
}

BIO* BIO_new(const BIO_METHOD* method) {
    return CryptoFault::strikes("BIO_new", __builtin_return_address(0))
               ? nullptr
               : real<decltype(BIO_new)>("BIO_new")(method);
}

int BIO_read(BIO* bio, void* data, int size) {
    return CryptoFault::strikes("BIO_read", __builtin_return_address(0))
               ? size - 1
               : real<decltype(BIO_read)>("BIO_read")(bio, data, size);
}

// More than any text can hold.
uint64_t BIO_number_written(BIO* bio) {
    return CryptoFault::strikes("BIO_number_written", __builtin_return_address(0))
               ? UINT64_MAX / 2
               : real<decltype(BIO_number_written)>("BIO_number_written")(bio);
}

// The pointer to a memory BIO's buffer is not given out.
long BIO_ctrl(BIO* bio, int command, long number, void* pointer) {
    if (command == BIO_C_GET_BUF_MEM_PTR &&
        CryptoFault::strikes("BIO_get_mem_ptr", __builtin_return_address(0))) {
        return 0;
    }
    return real<decltype(BIO_ctrl)>("BIO_ctrl")(bio, command, number, pointer);
}

BIGNUM* BN_new() {
    return CryptoFault::strikes("BN_new", __builtin_return_address(0)) ? nullptr
                                                                       : real<decltype(BN_new)>("BN_new")();
}

int BN_rand(BIGNUM* number, int bits, int top, int bottom) {
    return CryptoFault::strikes("BN_rand", __builtin_return_address(0))
               ? 0
               : real<decltype(BN_rand)>("BN_rand")(number, bits, top, bottom);
}

ASN1_INTEGER* ASN1_INTEGER_new() {
    return CryptoFault::strikes("ASN1_INTEGER_new", __builtin_return_address(0))
               ? nullptr
               : real<decltype(ASN1_INTEGER_new)>("ASN1_INTEGER_new")();
}

const unsigned char* ASN1_STRING_get0_data(const ASN1_STRING* string) {
    return CryptoFault::strikes("ASN1_STRING_get0_data", __builtin_return_address(0))
               ? nullptr
               : real<decltype(ASN1_STRING_get0_data)>("ASN1_STRING_get0_data")(string);
}

EVP_PKEY* EVP_PKEY_new() {
    return CryptoFault::strikes("EVP_PKEY_new", __builtin_return_address(0))
               ? nullptr
               : real<decltype(EVP_PKEY_new)>("EVP_PKEY_new")();
}

int EVP_PKEY_assign(EVP_PKEY* key, int type, void* part) {
    return CryptoFault::strikes("EVP_PKEY_assign", __builtin_return_address(0))
               ? 0
               : real<decltype(EVP_PKEY_assign)>("EVP_PKEY_assign")(key, type, part);
}

int EVP_PKEY_get_bits(const EVP_PKEY* key) {
    return CryptoFault::strikes("EVP_PKEY_get_bits", __builtin_return_address(0))
               ? 0
               : real<decltype(EVP_PKEY_get_bits)>("EVP_PKEY_get_bits")(key);
}

EVP_PKEY_CTX* EVP_PKEY_CTX_new_id(int id, ENGINE* engine) {
    return CryptoFault::strikes("EVP_PKEY_CTX_new_id", __builtin_return_address(0))
               ? nullptr
               : real<decltype(EVP_PKEY_CTX_new_id)>("EVP_PKEY_CTX_new_id")(id, engine);
}

int EVP_PKEY_keygen_init(EVP_PKEY_CTX* context) {
    return CryptoFault::strikes("EVP_PKEY_keygen_init", __builtin_return_address(0))
               ? 0
               : real<decltype(EVP_PKEY_keygen_init)>("EVP_PKEY_keygen_init")(context);
}

int EVP_PKEY_keygen(EVP_PKEY_CTX* context, EVP_PKEY** key) {
    return CryptoFault::strikes("EVP_PKEY_keygen", __builtin_return_address(0))
               ? 0
               : real<decltype(EVP_PKEY_keygen)>("EVP_PKEY_keygen")(context, key);
}

EC_KEY* EC_KEY_new_by_curve_name(int nid) {
    return CryptoFault::strikes("EC_KEY_new_by_curve_name", __builtin_return_address(0))
               ? nullptr
               : real<decltype(EC_KEY_new_by_curve_name)>("EC_KEY_new_by_curve_name")(nid);
}

int EC_KEY_generate_key(EC_KEY* key) {
    return CryptoFault::strikes("EC_KEY_generate_key", __builtin_return_address(0))
               ? 0
               : real<decltype(EC_KEY_generate_key)>("EC_KEY_generate_key")(key);
}

OPENSSL_STACK* OPENSSL_sk_new_null() {
    return CryptoFault::strikes("OPENSSL_sk_new_null", __builtin_return_address(0))
               ? nullptr
               : real<decltype(OPENSSL_sk_new_null)>("OPENSSL_sk_new_null")();
}

void* OPENSSL_sk_value(const OPENSSL_STACK* stack, int index) {
    return CryptoFault::strikes("OPENSSL_sk_value", __builtin_return_address(0))
               ? nullptr
               : real<decltype(OPENSSL_sk_value)>("OPENSSL_sk_value")(stack, index);
}

const char* OBJ_nid2ln(int nid) {
    return CryptoFault::strikes("OBJ_nid2ln", __builtin_return_address(0))
               ? nullptr
               : real<decltype(OBJ_nid2ln)>("OBJ_nid2ln")(nid);
}

X509* PEM_read_X509(FILE* file, X509** out, pem_password_cb* callback, void* data) {
    return CryptoFault::strikes("PEM_read_X509", __builtin_return_address(0))
               ? nullptr
               : real<decltype(PEM_read_X509)>("PEM_read_X509")(file, out, callback, data);
}

int PEM_write_bio_X509(BIO* bio, const X509* certificate) {
    return CryptoFault::strikes("PEM_write_bio_X509", __builtin_return_address(0))
               ? 0
               : real<decltype(PEM_write_bio_X509)>("PEM_write_bio_X509")(bio, certificate);
}

int PEM_write_bio_X509_REQ(BIO* bio, const X509_REQ* request) {
    return CryptoFault::strikes("PEM_write_bio_X509_REQ", __builtin_return_address(0))
               ? 0
               : real<decltype(PEM_write_bio_X509_REQ)>("PEM_write_bio_X509_REQ")(bio, request);
}

X509* X509_new() {
    return CryptoFault::strikes("X509_new", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_new)>("X509_new")();
}

int X509_set_version(X509* certificate, long version) {
    return CryptoFault::strikes("X509_set_version", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_set_version)>("X509_set_version")(certificate, version);
}

int X509_set_issuer_name(X509* certificate, const X509_NAME* name) {
    return CryptoFault::strikes("X509_set_issuer_name", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_set_issuer_name)>("X509_set_issuer_name")(certificate, name);
}

int X509_set_subject_name(X509* certificate, const X509_NAME* name) {
    return CryptoFault::strikes("X509_set_subject_name", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_set_subject_name)>("X509_set_subject_name")(certificate, name);
}

int X509_set_pubkey(X509* certificate, EVP_PKEY* key) {
    return CryptoFault::strikes("X509_set_pubkey", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_set_pubkey)>("X509_set_pubkey")(certificate, key);
}

int X509_add_ext(X509* certificate, X509_EXTENSION* extension, int position) {
    return CryptoFault::strikes("X509_add_ext", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_add_ext)>("X509_add_ext")(certificate, extension, position);
}

int X509_sign(X509* certificate, EVP_PKEY* key, const EVP_MD* digest) {
    return CryptoFault::strikes("X509_sign", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_sign)>("X509_sign")(certificate, key, digest);
}

int X509_get_signature_nid(const X509* certificate) {
    return CryptoFault::strikes("X509_get_signature_nid", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_get_signature_nid)>("X509_get_signature_nid")(certificate);
}

const ASN1_INTEGER* X509_get0_serialNumber(const X509* certificate) {
    return CryptoFault::strikes("X509_get0_serialNumber", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_get0_serialNumber)>("X509_get0_serialNumber")(certificate);
}

ASN1_OBJECT* X509_EXTENSION_get_object(X509_EXTENSION* extension) {
    return CryptoFault::strikes("X509_EXTENSION_get_object", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_EXTENSION_get_object)>("X509_EXTENSION_get_object")(extension);
}

ASN1_OCTET_STRING* X509_EXTENSION_get_data(X509_EXTENSION* extension) {
    return CryptoFault::strikes("X509_EXTENSION_get_data", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_EXTENSION_get_data)>("X509_EXTENSION_get_data")(extension);
}

X509_REQ* X509_REQ_new() {
    return CryptoFault::strikes("X509_REQ_new", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_REQ_new)>("X509_REQ_new")();
}

int X509_REQ_sign(X509_REQ* request, EVP_PKEY* key, const EVP_MD* digest) {
    return CryptoFault::strikes("X509_REQ_sign", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_REQ_sign)>("X509_REQ_sign")(request, key, digest);
}

EVP_PKEY* X509_REQ_get_pubkey(X509_REQ* request) {
    return CryptoFault::strikes("X509_REQ_get_pubkey", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_REQ_get_pubkey)>("X509_REQ_get_pubkey")(request);
}

STACK_OF(X509_EXTENSION) * X509_REQ_get_extensions(X509_REQ* request) {
    return CryptoFault::strikes("X509_REQ_get_extensions", __builtin_return_address(0))
               ? nullptr
               : real<decltype(X509_REQ_get_extensions)>("X509_REQ_get_extensions")(request);
}

int X509_REQ_get_signature_nid(const X509_REQ* request) {
    return CryptoFault::strikes("X509_REQ_get_signature_nid", __builtin_return_address(0))
               ? 0
               : real<decltype(X509_REQ_get_signature_nid)>("X509_REQ_get_signature_nid")(request);
}

int inet_pton(int family, const char* text, void* binary) noexcept {
    if (CryptoFault::isDue("inet_pton", __builtin_return_address(0))) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    return real<decltype(inet_pton)>("inet_pton")(family, text, binary);
}

const char* inet_ntop(int family, const void* binary, char* text, socklen_t size) noexcept {
    if (CryptoFault::isDue("inet_ntop", __builtin_return_address(0))) {
        errno = ENOSPC;
        return nullptr;
    }
    return real<decltype(inet_ntop)>("inet_ntop")(family, binary, text, size);
}

}  // extern "C"
