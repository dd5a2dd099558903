#include "ctl/NamesCheck.h"

#include <unistd.h>

#include <algorithm>

#include "config/DaemonConfiguration.h"
#include "network/NetworkConfiguration.h"
#include "network/NetworkInfo.h"
#include "x509/Validation.h"

namespace keywardctl {

namespace {

using keywarden::NetworkConfiguration;

bool wantsNames(const keywarden::ServiceConfiguration& configuration) {
    return configuration.isIncludeFQDN() || !configuration.getNetworkInterfaceList().empty();
}

// The daemon may run a script that its other users may not.
bool canRunScript() {
    const std::string script =
        keywarden::DaemonConfiguration::getInstance().getScriptsDirectory() + "/network.sh";
    return ::access(script.c_str(), X_OK) == 0;
}

// A script that failed leaves nothing at all behind, not even the interfaces that are down.
bool isNetworkKnown(const keywarden::ServiceConfiguration& configuration) {
    if (!canRunScript())
        return false;
    NetworkConfiguration& network = NetworkConfiguration::getInstance();
    const auto& interfaces = configuration.getNetworkInterfaceList();
    return !network.getDNS().empty() ||
           std::any_of(interfaces.begin(), interfaces.end(),
                       [&network](const std::string& name) { return network.isInterfaceExist(name); });
}

bool holds(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

std::string canonical(const std::string& address) {
    return address.find(':') == std::string::npos ? address : keywarden::correctIPv6Address(address);
}

}  // namespace

NamesView compareNames(const keywarden::ServiceConfiguration& configuration,
                       const keywarden::AlternativeNames& names) {
    NamesView view;
    view.state = NamesView::State::Matching;
    if (!wantsNames(configuration))
        return view;
    if (!isNetworkKnown(configuration)) {
        view.state = NamesView::State::Unknown;
        return view;
    }
    const keywarden::NetworkInfo current(configuration);
    for (const std::string& name : current.fqdns) {
        if (!holds(names.hostnames, name))
            view.missing.push_back(name);
    }
    for (const auto& [interface, addresses] : current.interfaces) {
        for (const std::string& address : addresses) {
            if (!holds(names.ips, canonical(address)) && !holds(view.missing, address))
                view.missing.push_back(address);
        }
    }
    if (!view.missing.empty())
        view.state = NamesView::State::Differing;
    return view;
}

}  // namespace keywardctl
