#include "server/AltNames.h"

#include <vector>

#include "network/NetworkConfiguration.h"
#include "support/Debug.h"
#include "x509/KeyTypes.h"

namespace keywarden {

namespace {

/// The names in the making, numbered from 1 for each kind.
class AltNames {
  public:
    void addDns(const std::string& value) { add("DNS." + std::to_string(nextDns_++), value); }
    void addIp(const std::string& value) { add("IP." + std::to_string(nextIp_++), value); }

    // Twice on purpose: there are peers that look for an address among the DNS names only.
    void addAddresses(const std::vector<std::string>& addresses) {
        for (const std::string& address : addresses) {
            addDns(address);
            addIp(address);
        }
    }

    void addDefault() {
        if (!names_.empty())
            return;
        names_["DNS.1"] = "localhost";
        debugTrace("  DNS.1 = localhost (default value)");
    }

    [[nodiscard]] const std::map<std::string, std::string>& names() const { return names_; }

  private:
    void add(const std::string& key, const std::string& value) {
        names_[key] = value;
        debugTrace("  " + key + " = " + value);
    }

    unsigned nextDns_ = 1;
    unsigned nextIp_ = 1;
    std::map<std::string, std::string> names_;
};

// The numbers stay in the value: OpenSSL ignores what follows the point of "DNS.2".
std::string joined(const std::map<std::string, std::string>& names) {
    std::string text;
    for (const auto& [key, value] : names)
        text.append(text.empty() ? "" : ",").append(key).append(":").append(value);
    return text;
}

}  // namespace

std::map<std::string, std::string> altNamesOf(const ServiceConfiguration& configuration,
                                              const ServiceConfiguration& interfaces) {
    NetworkConfiguration& network = NetworkConfiguration::getInstance();
    AltNames altNames;
    if (configuration.isIncludeFQDN()) {
        for (const std::string& fqdn : network.getDNS())
            altNames.addDns(fqdn);
    }
    for (const std::string& interface : interfaces.getNetworkInterfaceList()) {
        debugTrace(" Interface: " + interface);
        const ServiceNetworkConfiguration& wanted = interfaces.getNetworkInterfaces(interface);
        if (wanted.includeIPv4)
            altNames.addAddresses(network.getInterfaceIPv4Addresses(interface, wanted.includeIPv4Auto));
        if (wanted.includeIPv6)
            altNames.addAddresses(network.getInterfaceIPv6Addresses(interface, wanted.includeIPv6Auto));
    }
    altNames.addDefault();
    debugTrace("Creating altnames for service " + configuration.getServiceId() + "... Done.");
    return altNames.names();
}

void addAltNames(kwdata::CCertificateData& data, const std::map<std::string, std::string>& names,
                 const std::string& service) {
    if (names.empty())
        debugTrace("No altNames found for creating certificate for service '" + service + "'.");
    const std::string value = joined(names);
    data.v3Extention.emplace_back(V3EXT_SUBJ_ALT_NAME, value, value, "");
}

}  // namespace keywarden
