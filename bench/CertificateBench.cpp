// A P-256 certificate with three names: key, certificate and signature.
// EC_KEY_... is what the daemon calls too: a key so made is carried faster through signing than one from
// EVP_EC_gen, so the bare loop has to be measured with it.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "cnf/CCertificateData.h"
#include "support/Clock.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/KeyTypes.h"
#include "x509/OpenSslPtr.h"
#include "x509/Signing.h"

namespace {

using namespace keywarden;

constexpr const char* kNames = "DNS.1:device.local,DNS.2:192.0.2.10,IP.1:192.0.2.10";
constexpr std::uint64_t kYear = std::uint64_t{365} * 86400;

constexpr std::array<std::pair<const char*, const char*>, 4> kExtensions{
    {{"subjectKeyIdentifier", "hash"},
     {"basicConstraints", "critical,CA:FALSE"},
     {"keyUsage", "critical,digitalSignature,keyAgreement"},
     {"subjectAltName", kNames}}};

constexpr std::array<std::pair<const char*, const char*>, 6> kSubject{{{"C", "US"},
                                                                       {"ST", "NC"},
                                                                       {"L", "Millbrook"},
                                                                       {"O", "Example"},
                                                                       {"OU", "Devices"},
                                                                       {"CN", "device.local"}}};

void require(bool done) {
    if (!done)
        throw std::runtime_error("libcrypto call failed");
}

EvpPkeyPtr bareKey() {
    EvpPkeyPtr key(EVP_PKEY_new());
    EC_KEY* const curveKey = EC_KEY_new_by_curve_name(NID_X9_62_prime256v1);
    EC_KEY_set_asn1_flag(curveKey, OPENSSL_EC_NAMED_CURVE);
    require(EC_KEY_generate_key(curveKey) == 1);
    require(EVP_PKEY_assign_EC_KEY(key.get(), curveKey) == 1);
    return key;
}

void bareExtensions(X509* certificate) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    for (const auto& [name, value] : kExtensions) {
        const X509ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, OBJ_txt2nid(name), value));
        require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
    }
}

X509Ptr bareCertificate(EVP_PKEY* key) {
    X509Ptr certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    const BignumPtr number(BN_new());
    require(BN_rand(number.get(), 64, 0, 0) == 1);
    const Asn1IntegerPtr serial(BN_to_ASN1_INTEGER(number.get(), nullptr));
    X509_set_serialNumber(certificate.get(), serial.get());
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), static_cast<long>(kYear));
    X509_set_pubkey(certificate.get(), key);
    X509_NAME* const name = X509_get_subject_name(certificate.get());
    for (const auto& [field, value] : kSubject)
        X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, reinterpret_cast<const unsigned char*>(value),
                                   -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    bareExtensions(certificate.get());
    require(X509_sign(certificate.get(), key, EVP_sha256()) > 0);
    return certificate;
}

kwdata::CCertificateData settings() {
    kwdata::CCertificateData data;
    data.subject =
        kwdata::CDistinguishedName("US", "NC", "Millbrook", "Example", {"Devices"}, "device.local", "");
    data.public_key_type = KEY_PRIME256V1;
    for (const auto& [name, value] : kExtensions)
        data.v3Extention.emplace_back(name, value, value, "");
    data.validNotBeforeDate = static_cast<std::uint64_t>(Clock::now());
    data.validNotAfterDate = data.validNotBeforeDate + kYear;
    return data;
}

void BareLibcryptoCertificate(benchmark::State& state) {
    for (auto _ : state) {
        const EvpPkeyPtr key = bareKey();
        benchmark::DoNotOptimize(bareCertificate(key.get()));
    }
}
BENCHMARK(BareLibcryptoCertificate)->Unit(benchmark::kMicrosecond);

void KeywardCertificate(benchmark::State& state) {
    const kwdata::CCertificateData data = settings();
    for (auto _ : state) {
        const EVP_PKEY_T key(data);
        benchmark::DoNotOptimize(createX509SelfSignedCertificate(data, key));
    }
}
BENCHMARK(KeywardCertificate)->Unit(benchmark::kMicrosecond);

}  // namespace
