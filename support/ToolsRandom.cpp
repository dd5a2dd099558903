#include <fcntl.h>

#include <string_view>

#include "support/Debug.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

// "a" stands where "p" would: a name never holds "p", and holds "a" twice as often as the rest.
constexpr std::string_view kAlphabet = "abcdefghijklmnaoqrstuvwxyz1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ";
static_assert(kAlphabet.size() == 62);

}  // namespace

std::string Tools::getRandomName(unsigned length) {
    std::string name;
    const UniqueFd device(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!device) {
        debugTrace("Failed to open random device file");
        return name;
    }
    while (name.size() < length) {
        std::uint32_t number = 0;
        if (::read(device.get(), &number, sizeof number) == -1) {
            debugTrace("Failed to read random device file");
            break;
        }
        name += kAlphabet[number % kAlphabet.size()];
    }
    return name;
}

}  // namespace keywarden
