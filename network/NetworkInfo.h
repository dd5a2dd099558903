#pragma once

#include <map>
#include <set>
#include <string>

namespace keywarden {

class ServiceConfiguration;

/// The network identity of one certificate: the DNS names and the addresses, per interface, that it covers.
class NetworkInfo {
  public:
    /// What the service's certificate should cover now.
    explicit NetworkInfo(const ServiceConfiguration& configuration);
    /// As saved; empty when the file cannot be read.
    explicit NetworkInfo(const std::string& path);
    /// The content of such a file.
    [[nodiscard]] static NetworkInfo fromText(const std::string& text);

    /// Writes the file (0644) into a folder that the daemon's user owns. A failure is logged at ERR, not
    /// thrown; the old file then stays.
    void save(const std::string& path) const;

    /// The content that save() writes.
    [[nodiscard]] std::string toText() const;

    /// Whether everything of this identity is also in `other`; what only `other` has does not count.
    [[nodiscard]] bool isIncludeIn(const NetworkInfo& other) const;

    std::set<std::string> fqdns;
    std::map<std::string, std::set<std::string>> interfaces;

  private:
    NetworkInfo() = default;
};

}  // namespace keywarden
