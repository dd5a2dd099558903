#pragma once

#include <map>
#include <string>

#include "cnf/CCertificateData.h"
#include "config/ServiceConfiguration.h"

namespace keywarden {

/// The subject alternative names of a service's certificates at this moment: "DNS.<n>" and "IP.<n>" to name
/// or address, ordered as texts ("DNS.10" before "DNS.2"); never empty. `interfaces` is the service's
/// configuration, or a copy that leaves some out.
[[nodiscard]] std::map<std::string, std::string> altNamesOf(const ServiceConfiguration& configuration,
                                                            const ServiceConfiguration& interfaces);

/// Puts them into the request settings.
void addAltNames(kwdata::CCertificateData& data, const std::map<std::string, std::string>& names,
                 const std::string& service);

}  // namespace keywarden
