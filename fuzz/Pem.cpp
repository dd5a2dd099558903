#include "fuzz/Pem.h"

#include <openssl/evp.h>

#include <algorithm>
#include <vector>

#include "fuzz/Fuzz.h"

namespace fuzz {

std::string asPem(const std::uint8_t* data, std::size_t size, const std::string& label) {
    std::string text = textOf(data, size);
    if (text.find("-----BEGIN") != std::string::npos)
        return text;
    std::vector<unsigned char> armour(4 * (size / 3 + 1) + 1);
    const int length = EVP_EncodeBlock(armour.data(), data, static_cast<int>(size));
    std::string pem = "-----BEGIN " + label + "-----\n";
    for (std::size_t at = 0; at < static_cast<std::size_t>(length); at += 64)
        pem.append(reinterpret_cast<const char*>(armour.data()) + at,
                   std::min<std::size_t>(64, static_cast<std::size_t>(length) - at))
            .append("\n");
    return pem + "-----END " + label + "-----\n";
}

}  // namespace fuzz
