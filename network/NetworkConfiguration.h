#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace keywarden {

/// The device's interfaces, addresses and DNS names, as the platform script "network.sh" printed them last.
/// One instance a process; any thread may use it. Its mutex is a leaf: nothing else is locked under it, and
/// no public operation calls another one while it holds it.
class NetworkConfiguration {
  public:
    /// Runs the script once, at the first call.
    static NetworkConfiguration& getInstance();

    NetworkConfiguration();
    NetworkConfiguration(const NetworkConfiguration&) = delete;
    NetworkConfiguration& operator=(const NetworkConfiguration&) = delete;

    /// Runs the script (at most 10 seconds), makes what it printed the new map, even when that is nothing,
    /// and returns a copy. A script that cannot be run, takes too long or prints without end is logged and
    /// keeps the old map. Readers wait meanwhile.
    std::map<std::string, std::string> reload();

    // Every list of the map ends at its first missing number.

    /// -1 for an unknown interface.
    int interfaceIndex(const std::string& name);
    bool isInterfaceExist(const std::string& name);
    /// Empty for an unknown interface.
    std::string getInterfaceMAC(const std::string& name);
    /// In the script's order. Nothing, unless `includeAuto`, when the family is configured automatically
    /// (DHCP, router advertisements).
    std::vector<std::string> getInterfaceIPv4Addresses(const std::string& name, bool includeAuto);
    std::vector<std::string> getInterfaceIPv6Addresses(const std::string& name, bool includeAuto);
    /// Unknown, or without any address, automatic ones included.
    bool isInterfaceOff(const std::string& name);
    std::vector<std::string> getDNS();

  private:
    // All under the lock.
    void replaceMap();
    [[nodiscard]] int indexOf(const std::string& name) const;
    [[nodiscard]] std::string valueOf(const std::string& key) const;
    [[nodiscard]] std::vector<std::string> valuesOf(const std::string& prefix) const;
    [[nodiscard]] std::vector<std::string> addressesOf(const std::string& name, const std::string& family,
                                                       bool includeAuto) const;

    std::map<std::string, std::string> map_;
    std::mutex mutex_;
};

}  // namespace keywarden
