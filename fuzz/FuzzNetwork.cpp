// What the network script prints, and the network files kept beside certificates.
#include <filesystem>
#include <fstream>

#include "fuzz/Fuzz.h"
#include "network/NetworkConfiguration.h"
#include "network/NetworkInfo.h"

using keywarden::NetworkConfiguration;
using keywarden::NetworkInfo;

namespace {

void askEverything(NetworkConfiguration& network, const std::string& interface) {
    const bool exists = network.isInterfaceExist(interface);
    fuzz::require(exists == (network.interfaceIndex(interface) >= 0),
                  "an interface that exists has a number");
    (void)network.getInterfaceMAC(interface);
    const auto fixed = network.getInterfaceIPv4Addresses(interface, false);
    const auto all = network.getInterfaceIPv4Addresses(interface, true);
    fuzz::require(fixed.size() <= all.size(), "automatic addresses come on top");
    const auto sixes = network.getInterfaceIPv6Addresses(interface, true);
    fuzz::require(network.isInterfaceOff(interface) == (all.empty() && sixes.empty()),
                  "an interface without an address is off");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::textOf(data, size);
    fuzz::setProgramOutput(text);
    static NetworkConfiguration network;
    const auto map = network.reload();
    askEverything(network, "eth0");
    if (const auto first = map.find("interface.0"); first != map.end())
        askEverything(network, first->second);
    (void)network.getDNS();

    const NetworkInfo saved(fuzz::fileWith(text));
    fuzz::require(saved.isIncludeIn(saved), "an identity includes itself");
    const NetworkInfo again(fuzz::fileWith(saved.toText()));
    fuzz::require(again.toText() == saved.toText(), "a saved identity reads back");
    return 0;
}
