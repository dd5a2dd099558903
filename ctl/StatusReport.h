#pragma once

#include <string>
#include <vector>

#include "ctl/ServiceView.h"

namespace keywardctl {

/// One line a service, under a line of headings.
[[nodiscard]] std::string statusText(const std::vector<ServiceView>& views, std::int64_t now, bool colours);

/// The JSON answer of "status".
[[nodiscard]] std::string statusJson(const std::vector<ServiceView>& views, std::int64_t now,
                                     bool daemonRuns);

}  // namespace keywardctl
