#include "x509/CryptoFailure.h"

#include <openssl/err.h>

#include <stdexcept>

namespace keywarden {

void throwCryptoFailure(const std::string& message) {
    ERR_clear_error();
    throw std::runtime_error(message);
}

}  // namespace keywarden
