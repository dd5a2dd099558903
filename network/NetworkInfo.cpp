#include "network/NetworkInfo.h"

#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "config/ServiceConfiguration.h"
#include "network/NetworkConfiguration.h"
#include "support/Debug.h"
#include "support/FileWriter.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

using ConfigMap = std::map<std::string, std::string>;

std::string numbered(const std::string& prefix, std::size_t number) {
    return prefix + "." + std::to_string(number);
}

constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;

std::string contentOfFile(const std::string& path) {
    try {
        return readRegularFile(path, kLargestFile);
    } catch (const std::runtime_error&) {
        return {};
    }
}

/// The values of "<prefix>.1", "<prefix>.2" ... up to the first one missing or empty.
std::vector<std::string> list(const ConfigMap& values, const std::string& prefix) {
    std::vector<std::string> found;
    for (;;) {
        const auto next = values.find(numbered(prefix, found.size() + 1));
        if (next == values.end() || next->second.empty())
            return found;
        found.push_back(next->second);
    }
}

void appendList(std::string& text, const std::string& prefix, const std::set<std::string>& values) {
    std::size_t number = 0;
    for (const std::string& value : values)
        text += numbered(prefix, ++number) + " " + value + "\n";
}

bool areIn(const std::set<std::string>& addresses, const std::set<std::string>& others) {
    for (const std::string& address : addresses) {
        if (others.count(address) == 0) {
            debugTrace("IP address '" + address + "' not found in the other given network list.");
            return false;
        }
    }
    return true;
}

}  // namespace

NetworkInfo::NetworkInfo(const ServiceConfiguration& configuration) {
    NetworkConfiguration& network = NetworkConfiguration::getInstance();
    if (configuration.isIncludeFQDN()) {
        const auto names = network.getDNS();
        fqdns.insert(names.begin(), names.end());
    }
    for (const std::string& name : configuration.getNetworkInterfaceList()) {
        if (network.isInterfaceOff(name))
            continue;
        const ServiceNetworkConfiguration& settings = configuration.getNetworkInterfaces(name);
        // An interface that is on counts even when none of its addresses do.
        std::set<std::string>& addresses = interfaces[name];
        const auto add = [&addresses](const std::vector<std::string>& more) {
            addresses.insert(more.begin(), more.end());
        };
        if (settings.includeIPv4)
            add(network.getInterfaceIPv4Addresses(name, settings.includeIPv4Auto));
        if (settings.includeIPv6)
            add(network.getInterfaceIPv6Addresses(name, settings.includeIPv6Auto));
    }
}

NetworkInfo::NetworkInfo(const std::string& path) : NetworkInfo(fromText(contentOfFile(path))) {}

NetworkInfo NetworkInfo::fromText(const std::string& text) {
    NetworkInfo info;
    std::istringstream lines(text);
    const ConfigMap values = Tools::getConfigMap(lines);
    const auto names = list(values, "HOSTNAME");
    info.fqdns.insert(names.begin(), names.end());
    for (const std::string& name : list(values, "INTERFACE")) {
        const auto addresses = list(values, name);
        info.interfaces[name].insert(addresses.begin(), addresses.end());
    }
    return info;
}

void NetworkInfo::save(const std::string& path) const {
    FileAttributes attributes;
    attributes.mode = 0644;
    attributes.inOwnFolder = true;
    try {
        FileWriter::write(path, toText(), attributes);
    } catch (...) {
        Log::write(SeverityError,
                   "Failed to open network file: " + path + " for saving network information.");
    }
}

std::string NetworkInfo::toText() const {
    std::string text;
    appendList(text, "HOSTNAME", fqdns);
    std::size_t number = 0;
    for (const auto& [name, addresses] : interfaces) {
        text += numbered("INTERFACE", ++number) + " " + name + "\n";
        appendList(text, name, addresses);
    }
    return text;
}

bool NetworkInfo::isIncludeIn(const NetworkInfo& other) const {
    for (const std::string& name : fqdns) {
        if (other.fqdns.count(name) == 0) {
            Log::write(SeverityNotice, "fqdn '" + name + "' not found in the other given network list.");
            return false;
        }
    }
    for (const auto& [name, addresses] : interfaces) {
        const auto found = other.interfaces.find(name);
        if (found == other.interfaces.end()) {
            Log::write(SeverityInfo, "New network interface '" + name + "' found.");
            return false;
        }
        if (!areIn(addresses, found->second))
            return false;
    }
    return true;
}

}  // namespace keywarden
