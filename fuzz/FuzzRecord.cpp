// The JSON record beside a stored certificate.
#include <sstream>
#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "stores/CertificateInfo.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const keywarden::CertificateInfo info(fuzz::fileWith(fuzz::textOf(data, size)));
        std::ostringstream answer;
        answer << info;
        fuzz::require(info.getMap().size() == 8, "a record has eight members");
    } catch (const std::runtime_error& refused) {
        fuzz::require(*refused.what() != '\0', "a refusal has a text");
    }
    return 0;
}
