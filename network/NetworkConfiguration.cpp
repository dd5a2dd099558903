#include "network/NetworkConfiguration.h"

#include "config/DaemonConfiguration.h"
#include "support/Debug.h"
#include "support/Exec.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/NeverDestroyed.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr unsigned kScriptSeconds = 10;

std::string numbered(const std::string& prefix, std::size_t number) {
    return prefix + "." + std::to_string(number);
}

// A script that fails still replaces the map by what it printed; without this line nobody would learn why the
// device lost its addresses.
void reportExit(const std::string& command, const zlk::Exec& script) {
    if (const std::string failure = script.failureText(); !failure.empty())
        Log::write(SeverityWarning, "The network script " + command + " ended with " + failure + ".");
}

std::map<std::string, std::string> runScript(const std::string& command) {
    zlk::Exec script({command}, kScriptSeconds);
    debugTrace(script.standardError().str());
    debugTrace(script.standardOutput().str());
    auto printed = Tools::getConfigMap(script.wholeOutput());
    reportExit(command, script);
    return printed;
}

}  // namespace

NetworkConfiguration& NetworkConfiguration::getInstance() {
    static NeverDestroyed<NetworkConfiguration> instance;
    return *instance;
}

NetworkConfiguration::NetworkConfiguration() {
    reload();
}

std::map<std::string, std::string> NetworkConfiguration::reload() {
    debugTrace("Get network info ...");
    std::map<std::string, std::string> current;
    {
        // Held while the script runs: nobody reads a map that is about to be replaced.
        const std::lock_guard<std::mutex> guard(mutex_);
        replaceMap();
        current = map_;
    }
    debugTrace("Get network info Done.");
    return current;
}

void NetworkConfiguration::replaceMap() {
    std::string command = "/network.sh";
    try {
        command.insert(0, DaemonConfiguration::getInstance().getScriptsDirectory());
        map_ = runScript(command);
    } catch (...) {
        // The second and third texts speak of a lock whatever failed.
        Log::write(SeverityError,
                   Failure::current().runtimeMessage(
                       "Runtime exception caught during executing " + command + " : ",
                       "Std exception received during getting lock for reloading network information: ",
                       "Unknown exception received during getting lock for reloading network information."));
    }
}

int NetworkConfiguration::interfaceIndex(const std::string& name) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return indexOf(name);
}

bool NetworkConfiguration::isInterfaceExist(const std::string& name) {
    return interfaceIndex(name) != -1;
}

std::string NetworkConfiguration::getInterfaceMAC(const std::string& name) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const int index = indexOf(name);
    return index == -1 ? std::string() : valueOf("mac." + std::to_string(index));
}

std::vector<std::string> NetworkConfiguration::getInterfaceIPv4Addresses(const std::string& name,
                                                                         bool includeAuto) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return addressesOf(name, "ipv4", includeAuto);
}

std::vector<std::string> NetworkConfiguration::getInterfaceIPv6Addresses(const std::string& name,
                                                                         bool includeAuto) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return addressesOf(name, "ipv6", includeAuto);
}

bool NetworkConfiguration::isInterfaceOff(const std::string& name) {
    // An unknown interface has no addresses either.
    return getInterfaceIPv4Addresses(name, true).empty() && getInterfaceIPv6Addresses(name, true).empty();
}

std::vector<std::string> NetworkConfiguration::getDNS() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return valuesOf("fqdn");
}

int NetworkConfiguration::indexOf(const std::string& name) const {
    const auto names = valuesOf("interface");
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i] == name)
            return static_cast<int>(i);
    }
    return -1;
}

std::string NetworkConfiguration::valueOf(const std::string& key) const {
    const auto found = map_.find(key);
    return found == map_.end() ? std::string() : found->second;
}

std::vector<std::string> NetworkConfiguration::valuesOf(const std::string& prefix) const {
    std::vector<std::string> values;
    for (auto found = map_.find(numbered(prefix, 0)); found != map_.end();
         found = map_.find(numbered(prefix, values.size())))
        values.push_back(found->second);
    return values;
}

std::vector<std::string> NetworkConfiguration::addressesOf(const std::string& name, const std::string& family,
                                                           bool includeAuto) const {
    const int index = indexOf(name);
    if (index == -1)
        return {};
    const std::string number = "." + std::to_string(index);
    if (!includeAuto && valueOf(family + "Auto" + number) == "yes")
        return {};
    return valuesOf(family + number);
}

}  // namespace keywarden
