#pragma once

#include <string>
#include <vector>

#include "ctl/check/Report.h"

namespace keywardctl::check {

/// Reads the daemon's file and those of the named services (of all, when none is named) and everything that
/// they lead to. Changes nothing on the device; the only program that is run is the platform's network
/// script, as the daemon user.
[[nodiscard]] Report checkDevice(const std::vector<std::string>& services);

}  // namespace keywardctl::check
