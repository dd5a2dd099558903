#pragma once

#include <optional>
#include <set>
#include <string>

#include "ctl/check/Identity.h"

namespace keywardctl::check {

/// What the platform's network script says of the device.
struct NetworkAnswer {
    std::set<std::string> interfaces;  ///< of those that were asked for
    bool hasNames = false;
};

/// Runs the script as the daemon does: as the daemon user, for at most ten seconds, in a process without a
/// terminal. A caller who is not root runs it as himself. Nothing when that failed.
[[nodiscard]] std::optional<NetworkAnswer> askNetwork(const std::string& user,
                                                      const std::set<std::string>& interfaces);

}  // namespace keywardctl::check
