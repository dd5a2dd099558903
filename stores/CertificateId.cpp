#include "stores/CertificateId.h"

namespace keywarden {

namespace {

constexpr std::size_t kHashDigits = 8;

}  // namespace

std::string certificateId(const std::string& hash, unsigned suffix) {
    return hash + "." + std::to_string(suffix);
}

bool isCertificateId(std::string_view text) {
    return text.size() == kHashDigits + 2 &&
           text.substr(0, kHashDigits).find_first_not_of("0123456789abcdef") == std::string_view::npos &&
           text[kHashDigits] == '.' && text.back() >= '0' && text.back() <= '9';
}

std::string hashOfId(const std::string& id) {
    return id.substr(0, kHashDigits);
}

}  // namespace keywarden
