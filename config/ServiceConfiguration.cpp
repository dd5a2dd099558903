#include "config/ServiceConfiguration.h"

#include <sstream>
#include <stdexcept>
#include <utility>

#include "config/ConfigValues.h"
#include "config/DaemonConfiguration.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

/// Runs a parser; its failure is told under the parameter's name, which brings its own separator
/// (": maximum CA").
template <typename Parse>
auto parsed(const std::string& parameter, Parse&& parse) {
    try {
        return parse();
    } catch (...) {
        const std::string text = "exception caught while reading config parameter" + parameter;
        throw std::runtime_error(
            Failure::current().message("Standard " + text + " - ", "Generic " + text + "."));
    }
}

/// Two slashes: the folder brings none, and both stay.
std::string servicePath(const std::string& serviceId) {
    return DaemonConfiguration::getInstance().getServiceConfigDirectory() + "/" + "/" + serviceId;
}

std::string storePath(const std::string& serviceId, const std::string& store, const std::string& what) {
    try {
        return servicePath(serviceId) + store;
    } catch (...) {
        const std::string text = "exception caught while getting " + what;
        throw std::runtime_error(
            Failure::current().runtimeMessage("Runtime error caught while getting " + what + ": ",
                                              "Std " + text + ": ", "Generic " + text + "."));
    }
}

ConfigValues readFile(const std::string& path, const std::string& serviceId) {
    try {
        std::istringstream file(readRegularFile(path, kLargestConfigurationFile));
        return ConfigValues(Tools::getConfigFileMap(file));
    } catch (const std::runtime_error& error) {
        debugTrace(error.what());
        throw std::runtime_error("No configuration file for the service " + serviceId);
    }
}

}  // namespace

ServiceConfiguration::ServiceConfiguration(const std::string& serviceId) : serviceId_(serviceId) {
    reload();
}

void ServiceConfiguration::reload() {
    const ConfigValues values = readFile(getServiceConfigFile(), serviceId_);
    readOwner(values);
    readDailyExpiryCheck(values);
    readRequestSettings(values);
    readSelfSigned(values);
    readCASigned(values);
    networkInvalidRevokePKIcert_ = values.isYes(ServiceKey::NetworkInvalidRevokePKIcert);
    opensslEngine_ = values.isYes(ServiceKey::OpensslEngine);
    includeFQDN_ = values.isYes(ServiceKey::IncludeFQDN);
    readInterfaces(values);
    // A store that is switched off keeps its limits.
    if (ca_)
        readCAStore(values);
    if (trustedClients_)
        readTrustedClientsStore(values);
}

void ServiceConfiguration::readOwner(const ConfigValues& values) {
    serviceName_ = values.text(ServiceKey::Name);
    server_ = values.isYes(ServiceKey::Server);
    ca_ = values.isYes(ServiceKey::CA);
    trustedClients_ = values.isYes(ServiceKey::TrustedClients);
    keyGroup_ = values.text(ServiceKey::KeyGroup);
    managementGroup_ = values.text(ServiceKey::ManagementGroup);
    callbackScript_ = values.text(ServiceKey::CallbackScript);
    callbackLibrary_ = values.text(ServiceKey::CallbackLibrary);
    readCallbackTimeout(values);
}

// A service is worth more than this setting: one that makes no sense is said so and left aside.
void ServiceConfiguration::readCallbackTimeout(const ConfigValues& values) {
    const ConfigKey key = ServiceKey::CallbackTimeoutSecs;
    const KeyRow& row = key.row();
    callbackTimeout_ = static_cast<std::uint32_t>(values.lenientNumber(key));
    if (values.has(key) && callbackTimeout_ < row.lowest)
        Log::write(SeverityError, "Invalid config parameter: callbackTimeoutSecs of the service " +
                                      serviceId_ + " should be from " + std::to_string(row.lowest) + " to " +
                                      std::to_string(row.highest) + ". Its callback has no time-out.");
}

void ServiceConfiguration::readDailyExpiryCheck(const ConfigValues& values) {
    const ConfigKey key = ServiceKey::CertDailyExpiryChkTimeOffsetSecs;
    dailyExpiryCheckOffset_ = static_cast<std::uint32_t>(key.row().absent);
    if (!values.has(key))
        return;
    const std::uint64_t offset =
        parsed(" certificate expiry check offset time", [&] { return values.number(key); });
    debugTrace("value for CertDailyExpiryChkTimeOffsetSecs :" + std::to_string(offset));
    // Zero is fine, whatever the text says.
    if (offset > static_cast<std::uint64_t>(key.row().highest))
        throw std::runtime_error(
            "Invalid config parameter: certificate expiry check offset time should be greater than zero and "
            "less "
            "than seconds in one day.");
    dailyExpiryCheckOffset_ = static_cast<std::uint32_t>(offset);
}

void ServiceConfiguration::readRequestSettings(const ConfigValues& values) {
    cnfHookFile_ = values.text(ServiceKey::CnfHookFile);
    cnfFile_ = values.text(ServiceKey::CnfFile);
    if (!cnfHookFile_.empty() || !cnfFile_.empty())
        return;
    debugTrace("Error: cnfHookFile or cnfFile must be defined");
    throw std::runtime_error("Invalid config parameter: cnf File or cnfFile must be defined");
}

void ServiceConfiguration::readSelfSigned(const ConfigValues& values) {
    selfSignedGeneration_ = values.isYes(ServiceKey::SelfSignedGeneration);
    selfSignedOnExpiration_ = values.isYes(ServiceKey::SelfSignedOnExpiration);
    selfSignedValidity_ = parsed(": self-signed validity",
                                 [&] { return values.lenientNumber(ServiceKey::SelfSignedValidity); });
    selfSignedValidityOffset_ = parsed(": self-signed validity offset", [&] {
        return values.lenientNumber(ServiceKey::SelfSignedValidityOffset);
    });
    if (values.has(ServiceKey::SelfSignedValidityOffset) && selfSignedValidityOffset_ >= selfSignedValidity_)
        throw std::runtime_error(
            "Invalid config parameter: selfsigned validity offset should be less than validity.");
}

void ServiceConfiguration::readCASigned(const ConfigValues& values) {
    caSignedGeneration_ = values.isYes(ServiceKey::CASignedGeneration);
    caSignedOnExpiration_ = values.isYes(ServiceKey::CASignedOnExpiration);
    caServiceId_ = values.text(ServiceKey::CAServiceId);
    caSignedValidity_ =
        parsed(": CA-signed validity", [&] { return values.lenientNumber(ServiceKey::CASignedValidity); });
    caSignedValidityOffset_ = parsed(": CA-signed validity offset", [&] {
        return values.lenientNumber(ServiceKey::CASignedValidityOffset);
    });
    // Without the full stop that its self-signed sister has.
    if (values.has(ServiceKey::CASignedValidityOffset) && caSignedValidityOffset_ >= caSignedValidity_)
        throw std::runtime_error(
            "Invalid config parameter: CA-signed validity offset should be less than validity");
}

void ServiceConfiguration::readInterfaces(const ConfigValues& values) {
    interfaces_.clear();
    interfaceList_.clear();
    for (unsigned index = 0;; ++index) {
        ServiceNetworkConfiguration record;
        record.name = values.text({ServiceKey::NetworkInterface, index});
        if (record.name.empty())
            return;
        record.regenerateIfOff = values.isYes({ServiceKey::RegenerateIfOff, index});
        record.includeIPv4 = values.isYes({ServiceKey::IncludeIPv4, index});
        record.includeIPv4Auto = values.isYes({ServiceKey::IncludeIPv4Auto, index});
        record.includeIPv6 = values.isYes({ServiceKey::IncludeIPv6, index});
        record.includeIPv6Auto = values.isYes({ServiceKey::IncludeIPv6Auto, index});
        // An interface that is listed twice keeps its first record.
        interfaces_.emplace(record.name, record);
        interfaceList_.push_back(record.name);
    }
}

void ServiceConfiguration::readCAStore(const ConfigValues& values) {
    maximumCA_ = 0;
    uniqueCaByCn_ = false;
    maximumCA_ = parsed(": maximum CA", [&] { return values.shortNumber(ServiceKey::MaximumCA); });
    uniqueCaByCn_ = values.isYes(ServiceKey::UniqueCaByCn);
}

void ServiceConfiguration::readTrustedClientsStore(const ConfigValues& values) {
    maximumTrustedClients_ = 0;
    // The limit counts only in a file that also limits the CA store: files in use rely on it.
    if (values.has(ServiceKey::MaximumCA))
        maximumTrustedClients_ = parsed(": maximum trusted client", [&] {
            return values.shortNumber(ServiceKey::MaximumTrustedClients);
        });
    uniqueTrustedClientByCn_ = values.isYes(ServiceKey::UniqueTrustedClientByCn);
}

std::string ServiceConfiguration::getServiceConfigFile() const {
    return servicePath(serviceId_) + ".conf";
}

std::string ServiceConfiguration::getTrustedClientsPath() const {
    return storePath(serviceId_, "/client", "trusted client path");
}

std::string ServiceConfiguration::getCAPath() const {
    return storePath(serviceId_, "/ca", "CA path");
}

std::string ServiceConfiguration::getServerPath() const {
    return storePath(serviceId_, "/server", "server path");
}

const ServiceNetworkConfiguration& ServiceConfiguration::getNetworkInterfaces(const std::string& name) const {
    return interfaces_.at(name);
}

void ServiceConfiguration::setExcludeIpForAllNetworkInterfaces() {
    for (auto& [name, record] : interfaces_) {
        record.includeIPv4 = false;
        record.includeIPv4Auto = false;
        record.includeIPv6 = false;
        record.includeIPv6Auto = false;
    }
}

}  // namespace keywarden
