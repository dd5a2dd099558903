#include "ctl/CertificateFacts.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>

#include "ctl/Problem.h"
#include "ctl/Text.h"
#include "x509/Description.h"
#include "x509/Extensions.h"
#include "x509/OpenSslPtr.h"
#include "x509/Validation.h"

namespace keywardctl {

namespace {

constexpr std::size_t kNameWidth = 13;

std::string keyText(const EVP_PKEY* key) {
    if (key == nullptr)
        return "unknown";
    const char* const type = EVP_PKEY_get0_type_name(key);
    return std::string(type != nullptr ? type : "unknown") + " " + std::to_string(EVP_PKEY_get_bits(key)) +
           " bits";
}

std::string fingerprintOf(const X509* certificate) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (X509_digest(certificate, EVP_sha256(), digest.data(), &size) != 1)
        return {};
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned place = 0; place < size; ++place) {
        text += kDigits[digest.at(place) >> 4U];
        text += kDigits[digest.at(place) & 0xFU];
    }
    return text;
}

std::string endText(const CertificateFacts& facts, std::int64_t now) {
    const std::int64_t days = daysUntil(facts.notAfter, now);
    const std::string text = utcText(facts.notAfter) + " (";
    if (days < 0)
        return text + "ended)";
    return text + std::to_string(days) + (days == 1 ? " day left)" : " days left)");
}

}  // namespace

std::string namesText(const keywarden::AlternativeNames& names) {
    std::vector<std::string> parts;
    for (const std::string& name : names.hostnames)
        parts.push_back("DNS:" + name);
    for (const std::string& address : names.ips)
        parts.push_back("IP:" + address);
    return parts.empty() ? "none" : joined(parts, ", ");
}

CertificateFacts factsOf(const keywarden::X509_T& certificate) {
    CertificateFacts facts;
    facts.commonName = keywarden::subjectCommonName(certificate);
    facts.subject = keywarden::subject_one_line(certificate);
    facts.issuer = keywarden::issuer_one_line(certificate);
    facts.serial = keywarden::get_cert_serial(certificate);
    facts.key = keyText(X509_get0_pubkey(certificate.get()));
    facts.signature = keywarden::get_signature_algo_type(certificate, keywarden::X509_REQ_T());
    facts.fingerprint = fingerprintOf(certificate.get());
    facts.notBefore = static_cast<std::int64_t>(keywarden::notBeforeOf(certificate));
    facts.notAfter = static_cast<std::int64_t>(keywarden::notAfterOf(certificate));
    facts.isCA = keywarden::isCertificateAuthority(certificate);
    facts.isSelfSigned = keywarden::isSelfSignedCertificate(certificate);
    facts.names = keywarden::alternativeNamesOf(certificate);
    ERR_clear_error();
    return facts;
}

void addFacts(Json& json, const CertificateFacts& facts, std::int64_t now) {
    json.text("common_name", facts.commonName)
        .text("subject", facts.subject)
        .text("issuer", facts.issuer)
        .text("serial", facts.serial)
        .text("key", facts.key)
        .text("signature", facts.signature)
        .text("sha256", facts.fingerprint)
        .number("not_before", facts.notBefore)
        .number("not_after", facts.notAfter)
        .number("days_left", daysUntil(facts.notAfter, now))
        .flag("is_ca", facts.isCA)
        .flag("is_self_signed", facts.isSelfSigned)
        .texts("dns", facts.names.hostnames)
        .texts("ips", facts.names.ips);
}

std::string factLine(const std::string& name, const std::string& value) {
    std::string line = name + ":";
    line.append(line.size() < kNameWidth ? kNameWidth - line.size() : 1, ' ');
    return line + printable(value) + "\n";
}

std::string factsText(const CertificateFacts& facts, std::int64_t now) {
    return factLine("subject", facts.subject) + factLine("issuer", facts.issuer) +
           factLine("serial", facts.serial) + factLine("key", facts.key) +
           factLine("signature", facts.signature) + factLine("sha256", facts.fingerprint) +
           factLine("not before", utcText(facts.notBefore)) + factLine("not after", endText(facts, now)) +
           factLine("CA", facts.isCA ? "yes" : "no") + factLine("names", namesText(facts.names));
}

RequestFacts requestFactsOf(const std::string& path) {
    try {
        const keywarden::X509_REQ_T request(path);
        RequestFacts facts;
        // Names are read from certificates: an empty one borrows the request's.
        keywarden::X509_T borrower(X509_new());
        if (keywarden::pki_ossl_copy_extensions(request, borrower))
            facts.names = keywarden::alternativeNamesOf(borrower);
        facts.subject = keywarden::_subject_as_line(X509_REQ_get_subject_name(request.get()));
        facts.key = keyText(X509_REQ_get0_pubkey(request.get()));
        ERR_clear_error();
        return facts;
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, "'" + path + "' holds no signing request: " + error.what());
    }
}

bool isIssuedBy(const keywarden::X509_T& certificate, const keywarden::X509_T& issuer) {
    if (X509_NAME_cmp(X509_get_issuer_name(certificate.get()), X509_get_subject_name(issuer.get())) != 0)
        return false;
    const bool verified = X509_verify(certificate.get(), X509_get0_pubkey(issuer.get())) == 1;
    ERR_clear_error();
    return verified;
}

}  // namespace keywardctl
