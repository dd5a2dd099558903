#include <array>
#include <cstddef>
#include <cstdio>

#include "ctl/check/Report.h"

namespace keywardctl::check {

namespace {

unsigned byteAt(const std::string& text, std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : 0U;
}

bool isContinuation(unsigned byte) {
    return (byte & 0xC0U) == 0x80U;
}

/// How many bytes from `index` on are one character that may be shown; 0 for none. The second control block
/// (U+0080 to U+009F), surrogates and overlong forms may not.
std::size_t lengthOfCharacter(const std::string& text, std::size_t index) {
    const unsigned first = byteAt(text, index);
    const unsigned second = byteAt(text, index + 1);
    if (first < 0x80U)
        return first >= 0x20U && first != 0x7FU ? 1 : 0;
    if (first >= 0xC2U && first <= 0xDFU)
        return isContinuation(second) && !(first == 0xC2U && second < 0xA0U) ? 2 : 0;
    if (first < 0xE0U || first > 0xEFU || !isContinuation(second) || !isContinuation(byteAt(text, index + 2)))
        return 0;
    const bool overlong = first == 0xE0U && second < 0xA0U;
    const bool surrogate = first == 0xEDU && second > 0x9FU;
    return overlong || surrogate ? 0 : 3;
}

std::string escaped(unsigned byte) {
    std::array<char, 5> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "\\x%02x", byte));
    return text.data();
}

}  // namespace

std::string printable(const std::string& text) {
    std::string shown;
    for (std::size_t index = 0; index < text.size();) {
        const std::size_t length = lengthOfCharacter(text, index);
        shown += length == 0 ? escaped(byteAt(text, index)) : text.substr(index, length);
        index += length == 0 ? 1 : length;
    }
    return shown;
}

}  // namespace keywardctl::check
