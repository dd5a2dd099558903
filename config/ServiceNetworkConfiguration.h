#pragma once

#include <string>

namespace keywarden {

/// What a service wants of one network interface.
struct ServiceNetworkConfiguration {
    std::string name;
    bool regenerateIfOff = false;
    bool includeIPv4 = false;
    bool includeIPv4Auto = false;
    bool includeIPv6 = false;
    bool includeIPv6Auto = false;
};

}  // namespace keywarden
