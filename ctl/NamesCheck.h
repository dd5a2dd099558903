#pragma once

#include "config/ServiceConfiguration.h"
#include "ctl/ServiceView.h"

namespace keywardctl {

/// Compares a certificate's alternative names with the device's network as the service's file selects from
/// it. What the certificate has beyond that does not count, as for the daemon. Unknown when the platform's
/// script cannot be run or tells nothing.
[[nodiscard]] NamesView compareNames(const keywarden::ServiceConfiguration& configuration,
                                     const keywarden::AlternativeNames& names);

}  // namespace keywardctl
