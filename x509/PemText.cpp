#include "x509/PemText.h"

#include <openssl/crypto.h>

#include <climits>
#include <exception>

#include "x509/CryptoFailure.h"
#include "x509/OpenSslPtr.h"

namespace keywarden {

namespace {

std::string zeroFilled(std::uint64_t size, const char* failureText) {
    try {
        return std::string(static_cast<std::size_t>(size), '\0');
    } catch (const std::exception&) {
        throwCryptoFailure(failureText);
    }
}

}  // namespace

std::string pemText(const PemFailureTexts& texts, const std::function<int(BIO*)>& write) {
    // A memory BIO cleanses its buffer, when it grows as well as when it is freed.
    const BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        throwCryptoFailure(texts.bio);
    }
    if (write(bio.get()) != 1) {
        throwCryptoFailure(texts.write);
    }
    const std::uint64_t size = BIO_number_written(bio.get());
    std::string text = zeroFilled(size, texts.allocate);
    const int count = size <= INT_MAX ? BIO_read(bio.get(), &text[0], static_cast<int>(size)) : -1;
    if (count < 0 || static_cast<std::uint64_t>(count) != size) {
        OPENSSL_cleanse(&text[0], text.size());
        throwCryptoFailure(texts.readBack);
    }
    return text;
}

int refusePassword(char* /*buffer*/, int /*size*/, int /*forWriting*/, void* /*userData*/) {
    return -1;
}

}  // namespace keywarden
