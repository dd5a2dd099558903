#pragma once

#include <string>

namespace keywardctl {

struct ShowOptions {
    std::string service;
    std::string caId;
    std::string clientId;
    bool request = false;
    bool json = false;
    bool pem = false;
};

/// Describes one certificate or the pending request, from their files: the daemon need not run.
void show(const ShowOptions& options);

}  // namespace keywardctl
