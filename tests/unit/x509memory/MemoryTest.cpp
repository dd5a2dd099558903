#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <iostream>
#include <thread>

#include "tests/unit/x509memory/EveryRefusal.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestClock.h"
#include "x509/Description.h"
#include "x509/Inspection.h"
#include "x509/KeyTypes.h"
#include "x509/OpenSslPtr.h"
#include "x509/Signing.h"
#include "x509/Validation.h"

using namespace keywarden;
using testsupport::inChild;

namespace {

constexpr std::int64_t kNow = 1772323200;
constexpr std::int64_t kDay = 86400;

// A process each: not for all of the thousands of requests.
std::uint64_t stepOf(const char* variable, std::uint64_t normal) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? normal : std::strtoull(text, nullptr, 10);
}
const std::uint64_t kFirstUseStep = stepOf("FAULT_MEMORY_STEP", 149);
// Reading takes the most of them, one as dull as the other.
const std::uint64_t kReadingStep = stepOf("FAULT_MEMORY_STEP", 7);
const std::uint64_t kStartStep = stepOf("FAULT_MEMORY_STEP", 211);

kwdata::v3Ext extension(const std::string& name, const std::string& value) {
    return {name, value, value, ""};
}

kwdata::CCertificateData settings(const std::string& keyType = KEY_PRIME256V1) {
    kwdata::CCertificateData data;
    data.subject = {"FR", "Isere", "", "Firm, Inc.", {"one", "two"}, "host.local", "a@b.example"};
    data.public_key_type = keyType;
    data.validNotBeforeDate = kNow;
    data.validNotAfterDate = kNow + 365 * kDay;
    data.v3Extention = {
        extension("subjectKeyIdentifier", "hash"),
        extension("basicConstraints", "critical,CA:FALSE"),
        extension("keyUsage", "critical,digitalSignature"),
        extension("extendedKeyUsage", "serverAuth"),
        extension("subjectAltName", "DNS.1:host.local,DNS.2:10.0.0.5,IP.1:10.0.0.5,IP.2:fe80::1"),
    };
    return data;
}

std::string bytesOf(const unsigned char* data, int size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (int index = 0; index < size; ++index) {
        text += digits[data[index] >> 4U];
        text += digits[data[index] & 0x0FU];
    }
    return text + "\n";
}

std::string nameIn(const X509_NAME* name) {
    const unsigned char* der = nullptr;
    std::size_t size = 0;
    X509_NAME_get0_der(name, &der, &size);
    return bytesOf(der, static_cast<int>(size));
}

std::string extensionsIn(const STACK_OF(X509_EXTENSION) * extensions) {
    std::string text;
    for (int index = 0; index < sk_X509_EXTENSION_num(extensions); ++index) {
        X509_EXTENSION* const one = sk_X509_EXTENSION_value(extensions, index);
        const ASN1_OCTET_STRING* const data = X509_EXTENSION_get_data(one);
        text += std::to_string(OBJ_obj2nid(X509_EXTENSION_get_object(one))) +
                std::to_string(X509_EXTENSION_get_critical(one)) +
                bytesOf(ASN1_STRING_get0_data(data), ASN1_STRING_length(data));
    }
    return text;
}

std::string keyIn(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key, &der);
    const std::string text = bytesOf(der, size);
    OPENSSL_free(der);
    return text;
}

// All but the serial and the signature, which differ each time. A serial that could not be set is no failure.
std::string contentOf(const X509_T& certificate) {
    const X509* const x509 = certificate.get();
    return std::to_string(X509_get_version(x509)) + nameIn(X509_get_subject_name(x509)) +
           nameIn(X509_get_issuer_name(x509)) + std::to_string(notBeforeOf(certificate)) + "-" +
           std::to_string(notAfterOf(certificate)) + extensionsIn(X509_get0_extensions(x509)) +
           keyIn(X509_get0_pubkey(x509));
}

std::string contentOfRequest(const X509_REQ_T& request) {
    const OwnedExtensions extensions(X509_REQ_get_extensions(request.get()));
    const bool isSigned = X509_REQ_verify(request.get(), X509_REQ_get0_pubkey(request.get())) == 1;
    return std::to_string(X509_REQ_get_version(request.get())) +
           nameIn(X509_REQ_get_subject_name(request.get())) + extensionsIn(extensions.get()) +
           keyIn(X509_REQ_get0_pubkey(request.get())) + std::to_string(isSigned);
}

std::string contentOfKey(const EVP_PKEY_T& key) {
    return keyIn(key.get());
}

std::string same(const std::string& text) {
    return text;
}

/// What an operation needs, made before anything is refused.
struct Material {
    testsupport::IssuedCertificate authority = testsupport::makeCertificate([] {
        testsupport::CertificateOptions options;
        options.commonName = "authority";
        options.ca = true;
        return options;
    }());
    X509_T caCertificate = X509_T::fromPem(authority.certificatePem);
    EVP_PKEY_T caKey = EVP_PKEY_T::fromPem(authority.keyPem);
    EVP_PKEY_T key = EVP_PKEY_T(settings());
    X509_T certificate = createX509SelfSignedCertificate(settings(), key);
    X509_REQ_T request = X509_REQ_T(settings(), key);
    std::string keyPem = privateKeyToPem(key);
    std::string certificatePem = certificate.toPem();
    std::string requestPem = x509CsrToPem(request);
};

/// In a child, since an operation under test may end the process.
class MemoryTest : public testing::Test {
  protected:
    using Body = std::function<Refusals(const Material&)>;

    static void expectNoDeviation(const std::string& what, const Body& body, bool mayAskNothing = false) {
        const std::string text = inChild([&body] {
            initialiseCrypto();
            testsupport::TestClock::set(kNow);
            const Material material;
            testsupport::CapturedLog::clear();
            const Refusals refusals = body(material);
            return refusals.text();
        });
        std::cout << what << ": " << text << "\n";
        EXPECT_EQ(text.substr(0, 1), "(") << what << ":\n" << text;
        EXPECT_TRUE(mayAskNothing || text.substr(0, 2) != "(0") << what << ": nothing was refused";
    }

    /// The operation's answer is text or a number.
    static void expectSameText(const std::string& what, Allowed allowed,
                               const std::function<std::string(const Material&)>& operation,
                               std::uint64_t step = 1, bool mayAskNothing = false) {
        const Body body = [&](const Material& material) {
            return everyRefusal<std::string>([&] { return operation(material); }, same, allowed, step);
        };
        expectNoDeviation(what, body, mayAskNothing);
    }
};

}  // namespace

TEST_F(MemoryTest, ANewKeyIsThereOrNot) {
    expectNoDeviation("EC key", [](const Material&) {
        return everyRefusal<EVP_PKEY_T>([] { return EVP_PKEY_T(settings()); },
                                        [](const EVP_PKEY_T& key) {
                                            return getPublicKeyType(key) +
                                                   std::to_string(EVP_PKEY_get_bits(key.get()));
                                        },
                                        Allowed::AnyFailure);
    });
}

TEST_F(MemoryTest, ANewEd25519KeyIsThereOrNot) {
    expectNoDeviation("Ed25519 key", [](const Material&) {
        return everyRefusal<EVP_PKEY_T>([] { return EVP_PKEY_T(settings(KEY_ED25519)); },
                                        [](const EVP_PKEY_T& key) {
                                            return getPublicKeyType(key) +
                                                   std::to_string(EVP_PKEY_get_bits(key.get()));
                                        },
                                        Allowed::AnyFailure);
    });
}

// The number of requests differs from key to key.
TEST_F(MemoryTest, ANewRsaKeyIsThereOrNot) {
    expectNoDeviation("RSA key", [](const Material&) {
        kwdata::CCertificateData data = settings(KEY_RSA2048);
        data.public_key_size_bits = 1024;
        return everyRefusal<EVP_PKEY_T>([&data] { return EVP_PKEY_T(data); },
                                        [](const EVP_PKEY_T& key) {
                                            return getPublicKeyType(key) +
                                                   std::to_string(EVP_PKEY_get_bits(key.get()));
                                        },
                                        Allowed::AnyFailure, 5);
    });
}

TEST_F(MemoryTest, ASelfSignedCertificateIsWholeOrNotMade) {
    expectNoDeviation("self-signed", [](const Material& material) {
        return everyRefusal<X509_T>(
            [&] { return createX509SelfSignedCertificate(settings(), material.key); },
            [&](const X509_T& certificate) {
                return contentOf(certificate) +
                       std::to_string(X509_verify(certificate.get(), material.key.get())) +
                       std::to_string(isSelfSignedCertificate(certificate));
            },
            Allowed::AnyFailure);
    });
}

TEST_F(MemoryTest, ACertificateWithoutADigestIsWholeOrNotMade) {
    expectNoDeviation("self-signed by Ed25519", [](const Material&) {
        const kwdata::CCertificateData data = settings(KEY_ED25519);
        const EVP_PKEY_T key(data);
        return everyRefusal<X509_T>([&] { return createX509SelfSignedCertificate(data, key); },
                                    [&](const X509_T& certificate) {
                                        return contentOf(certificate) +
                                               std::to_string(X509_verify(certificate.get(), key.get())) +
                                               std::to_string(isSelfSignedCertificate(certificate));
                                    },
                                    Allowed::AnyFailure);
    });
}

TEST_F(MemoryTest, ARequestIsWholeOrNotMade) {
    expectNoDeviation("request", [](const Material& material) {
        return everyRefusal<X509_REQ_T>([&] { return X509_REQ_T(settings(), material.key); },
                                        contentOfRequest, Allowed::AnyFailure);
    });
}

TEST_F(MemoryTest, ACertificateOfTheCaIsWholeOrNotMade) {
    expectNoDeviation("CA-signed", [](const Material& material) {
        return everyRefusal<X509_T>(
            [&] {
                return signX509WithCA(material.caCertificate, material.caKey, material.request, kNow,
                                      kNow + 365 * kDay, 365 * kDay);
            },
            [&](const X509_T& certificate) {
                return contentOf(certificate) +
                       std::to_string(X509_verify(certificate.get(), material.caKey.get()));
            },
            Allowed::AnyFailure);
    });
}

// Both ends are moved to the CA's.
TEST_F(MemoryTest, ACertificateNeverOutlastsItsCa) {
    expectNoDeviation("CA-signed, cut", [](const Material& material) {
        const std::uint64_t before = notBeforeOf(material.caCertificate) - kDay;
        const std::uint64_t after = notAfterOf(material.caCertificate) + kDay;
        return everyRefusal<X509_T>(
            [&, before, after] {
                return signX509WithCA(material.caCertificate, material.caKey, material.request, before, after,
                                      after - before);
            },
            contentOf, Allowed::AnyFailure);
    });
}

TEST_F(MemoryTest, AReaderDoesNotTakeWantOfMemoryForABadText) {
    expectNoDeviation("certificate text", [](const Material& material) {
        return everyRefusal<X509_T>([&] { return X509_T::fromPem(material.certificatePem); }, contentOf,
                                    Allowed::OutOfMemory, kReadingStep);
    });
    expectNoDeviation("key text", [](const Material& material) {
        return everyRefusal<EVP_PKEY_T>([&] { return EVP_PKEY_T::fromPem(material.keyPem); }, contentOfKey,
                                        Allowed::OutOfMemory, kReadingStep);
    });
    expectNoDeviation("request text", [](const Material& material) {
        return everyRefusal<X509_REQ_T>([&] { return X509_REQ_T::fromPem(material.requestPem); },
                                        contentOfRequest, Allowed::OutOfMemory, kReadingStep);
    });
}

TEST_F(MemoryTest, AReaderDoesNotTakeWantOfMemoryForABadFile) {
    const testsupport::Sandbox sandbox;
    expectNoDeviation("certificate file", [&](const Material& material) {
        const std::string path = sandbox.write("certificate.pem", material.certificatePem);
        return everyRefusal<X509_T>([&] { return X509_T(path); }, contentOf, Allowed::OutOfMemory,
                                    kReadingStep);
    });
    expectNoDeviation("key file", [&](const Material& material) {
        const std::string path = sandbox.write("key.pem", material.keyPem);
        return everyRefusal<EVP_PKEY_T>([&] { return EVP_PKEY_T(path); }, contentOfKey, Allowed::OutOfMemory,
                                        kReadingStep);
    });
    expectNoDeviation("request file", [&](const Material& material) {
        const std::string path = sandbox.write("request.pem", material.requestPem);
        return everyRefusal<X509_REQ_T>([&] { return X509_REQ_T(path); }, contentOfRequest,
                                        Allowed::OutOfMemory, kReadingStep);
    });
}

TEST_F(MemoryTest, AWriterWritesAllOrFails) {
    const auto any = Allowed::AnyFailure;
    expectSameText("certificate to text", any, [](const Material& m) { return m.certificate.toPem(); });
    expectSameText("request to text", any, [](const Material& m) { return x509CsrToPem(m.request); });
    expectSameText("key to text", any, [](const Material& m) { return privateKeyToPem(m.key); });
    expectSameText("printed", any, [](const Material& m) { return printedText(m.certificate); });
}

TEST_F(MemoryTest, ADescriptionIsWholeOrFails) {
    const auto any = Allowed::AnyFailure;
    expectSameText("certificate described", any,
                   [](const Material& m) { return getCertDataString(m.certificate); });
    expectSameText("request described", any, [](const Material& m) { return getCsrDataString(m.request); });
}

// No memory for the first step has a line of its own in the log and an empty answer.
TEST_F(MemoryTest, ANameIsWrittenWholeOrItsFailureIsLogged) {
    const auto lineOf = [](const std::function<std::string(const X509_T&)>& write) {
        return [write](const Material& m) {
            testsupport::CapturedLog::clear();
            std::string line = write(m.certificate);
            const bool isLogged =
                testsupport::CapturedLog::contains(SeverityError, "failed to create bio object");
            return line.empty() && isLogged ? subject_one_line(m.certificate) : line;
        };
    };
    expectSameText("subject line", Allowed::OutOfMemory, lineOf(subject_one_line));
    expectSameText("issuer line", Allowed::OutOfMemory, lineOf(issuer_one_line));
}

// Twice: of one object all the time, which must not be spoilt, and of one just read.
TEST_F(MemoryTest, AnInspectionDoesNotTakeWantOfMemoryForAnAnswer) {
    const std::vector<std::pair<std::string, std::function<std::string(const X509_T&)>>> inspections = {
        {"hash", subjectNameHash},
        {"subject", subjectCommonName},
        {"issuer", issuerCommonName},
        {"authority", [](const X509_T& c) { return std::to_string(isCertificateAuthority(c)); }},
        {"self-signed", [](const X509_T& c) { return std::to_string(isSelfSignedCertificate(c)); }},
        {"names",
         [](const X509_T& c) {
             std::string text;
             const AlternativeNames names = alternativeNamesOf(c);
             for (const std::string& name : names.hostnames)
                 text += name + ",";
             for (const std::string& name : names.ips)
                 text += name + ",";
             return text;
         }},
    };
    for (const auto& [what, inspection] : inspections) {
        expectSameText(
            what, Allowed::OutOfMemory,
            [inspect = inspection](const Material& m) { return inspect(m.certificate); }, 1, true);
        expectSameText(
            what + " just read", Allowed::OutOfMemory,
            [inspect = inspection](const Material& m) { return inspect(X509_T::fromPem(m.certificatePem)); },
            kReadingStep);
        expectSameText(
            what + " of an authority", Allowed::OutOfMemory,
            [inspect = inspection](const Material& m) { return inspect(m.caCertificate); }, 1, true);
    }
}

TEST_F(MemoryTest, AComparisonDoesNotTakeWantOfMemoryForADifference) {
    expectSameText(
        "encodings", Allowed::OutOfMemory,
        [](const Material& m) {
            return std::to_string(sameEncoding(m.certificate, X509_T::fromPem(m.certificatePem)));
        },
        kReadingStep);
    expectSameText(
        "key and certificate", Allowed::OutOfMemory,
        [](const Material& m) { return std::to_string(keyMatchesCertificate(m.key, m.certificate)); }, 1,
        true);
    expectSameText(
        "key and certificate just read", Allowed::OutOfMemory,
        [](const Material& m) {
            return std::to_string(
                keyMatchesCertificate(EVP_PKEY_T::fromPem(m.keyPem), X509_T::fromPem(m.certificatePem)));
        },
        kReadingStep);
    expectSameText(
        "request and certificate", Allowed::OutOfMemory,
        [](const Material& m) {
            return std::to_string(validateCsrAndCrt(X509_REQ_T::fromPem(m.requestPem), m.certificate));
        },
        kReadingStep);
    expectNoDeviation("public key", [](const Material& m) {
        return everyRefusal<EVP_PKEY_T>([&] { return EVP_PKEY_T(X509_T::fromPem(m.certificatePem)); },
                                        contentOfKey, Allowed::OutOfMemory, kReadingStep);
    });
}

TEST_F(MemoryTest, ARecordIsReadWholeOrNotAtAll) {
    expectSameText("certificate record", Allowed::OutOfMemory, [](const Material&) {
        std::string text;
        settings().to(text);
        std::string again;
        kwdata::CCertificateData::from(text).to(again);
        return again;
    });
    expectSameText("request record", Allowed::OutOfMemory, [](const Material&) {
        kwdata::CCSRData data;
        data.subject = settings().subject;
        data.v3Extention = settings().v3Extention;
        std::string text;
        data.to(text);
        std::string again;
        kwdata::CCSRData::from(text).to(again);
        return again;
    });
}

namespace {

// Everything that is made for a service, and read again. A wrong answer is a std::logic_error.
void usePair() {
    const EVP_PKEY_T key(settings());
    const X509_T made = createX509SelfSignedCertificate(settings(), key);
    const X509_T certificate = X509_T::fromPem(made.toPem());
    const EVP_PKEY_T readKey = EVP_PKEY_T::fromPem(privateKeyToPem(key));
    if (!keyMatchesCertificate(readKey, certificate) || !isSelfSignedCertificate(certificate)) {
        throw std::logic_error("the key is another one");
    }
}

/// In a thread of its own, whose generators of random numbers are new.
void usePairInThread(std::uint64_t refusedRequest) {
    std::thread([refusedRequest] {
        try {
            const RefusedMemory refused(refusedRequest);
            usePair();
        } catch (const std::logic_error&) {
            std::terminate();
        } catch (const std::exception&) {
            // This use fails, that is all; what comes after it is looked at.
        }
    }).join();
}

// What the body says, or how its process failed.
std::string outcomeOf(const std::function<std::string()>& body) {
    try {
        return inChild(body);
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

}  // namespace

// What libcrypto sets up once must not be set up wrongly for good.
TEST(FirstUse, WantOfMemoryDoesNotLast) {
    testsupport::TestClock::set(kNow);
    std::uint64_t tries = 0;
    std::string outcome = "more";
    for (std::uint64_t request = 1; outcome == "more"; request += kFirstUseStep, ++tries) {
        outcome = outcomeOf([request] {
            if (!initialiseCrypto())
                throw std::logic_error("not ready");
            usePairInThread(request);
            const bool struck = RefusedMemory::struck();
            usePair();
            std::thread(usePair).join();
            return struck ? "more" : "done";
        });
    }
    EXPECT_EQ(outcome, "done") << "request " << 1 + (tries - 1) * kFirstUseStep;
    EXPECT_GT(tries, 5U);
    std::cout << tries << " tries\n";
}

TEST(FirstUse, ReadyMeansThatKeysAndCertificatesCanBeMade) {
    testsupport::TestClock::set(kNow);
    std::uint64_t tries = 0;
    std::string outcome = "not ready";
    for (std::uint64_t request = 1; outcome == "not ready" || outcome == "ready";
         request += kStartStep, ++tries) {
        outcome = outcomeOf([request]() -> std::string {
            testsupport::CapturedLog::clear();
            const bool isReady = [request] {
                const RefusedMemory refused(request);
                return initialiseCrypto();
            }();
            const bool isLogged =
                testsupport::CapturedLog::containsPart("The cryptographic library is not ready");
            if (isLogged == isReady)
                return "logged: " + testsupport::CapturedLog::dump();
            if (isReady)
                usePair();
            if (!RefusedMemory::struck())
                return "done";
            return isReady ? "ready" : "not ready";
        });
    }
    EXPECT_EQ(outcome, "done") << "request " << 1 + (tries - 1) * kStartStep;
    EXPECT_GT(tries, 5U);
    std::cout << tries << " tries\n";
}
