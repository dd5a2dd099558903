#include "x509/Secret.h"

#include <openssl/crypto.h>

#include <utility>

namespace keywarden {

namespace {

// All that was allocated, what stands behind the end of the text included.
void cleanse(std::string& text) {
    text.resize(text.capacity());
    OPENSSL_cleanse(&text[0], text.size());
}

}  // namespace

Secret::Secret(std::string text) : text_(std::move(text)) {}

Secret::~Secret() {
    cleanse(text_);
}

void Secret::append(const std::string& more) {
    std::string grown;
    grown.reserve(text_.size() + more.size());
    grown.append(text_).append(more);
    cleanse(text_);
    text_ = std::move(grown);
}

}  // namespace keywarden
