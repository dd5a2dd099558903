#include "config/DaemonConfiguration.h"

#include <map>
#include <sstream>
#include <stdexcept>

#include "support/ConfigurationPath.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/NeverDestroyed.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

using ConfigMap = std::map<std::string, std::string>;

ConfigMap readFile(const std::string& path) {
    try {
        std::istringstream file(readRegularFile(path, kLargestConfigurationFile));
        return Tools::getConfigFileMap(file);
    } catch (const std::runtime_error& error) {
        debugTrace(error.what());
        throw std::runtime_error("Failed to open configuration file : " + path);
    }
}

std::string text(const ConfigMap& values, const std::string& key) {
    const auto found = values.find(key);
    return found == values.end() ? std::string() : found->second;
}

std::int64_t minimumDate(const ConfigMap& values) {
    const auto found = values.find("minDateForGeneratingCert");
    return found == values.end() ? 0 : std::stoll(found->second);
}

// Both drift values are reported under the name of the first.
std::int32_t driftValue(const ConfigMap& values, const std::string& key) {
    const auto found = values.find(key);
    if (found == values.end())
        return 0;
    const std::string name = "caught while getting the value for TimeDriftSleepTime in api: ";
    try {
        return std::stoi(found->second);
    } catch (const std::invalid_argument& error) {
        throw std::runtime_error("Std exception invalid argument " + name + error.what());
    } catch (const std::out_of_range& error) {
        throw std::runtime_error("Std exception out of range " + name + error.what());
    } catch (...) {
        throw std::runtime_error("Generic exception caught while getting value for TimeDriftSleepTime.");
    }
}

}  // namespace

DaemonConfiguration& DaemonConfiguration::getInstance() {
    static NeverDestroyed<DaemonConfiguration> instance{std::string(daemonConfigurationPath())};
    return *instance;
}

DaemonConfiguration::DaemonConfiguration(const std::string& path) {
    const ConfigMap values = readFile(path);
    keywardDirectory_ = text(values, "keywardDirectory");
    notificationGroup_ = text(values, "notificationGroup");
    serviceConfigDirectory_ = text(values, "serviceConfigDirectory");
    namePipesDirectory_ = text(values, "namePipesDirectory");
    daemonUser_ = text(values, "daemonUser");
    scriptsDirectory_ = text(values, "scriptsDirectory");
    lockFile_ = text(values, "lockFile");
    pidFile_ = text(values, "pidFile");
    minDateForGeneratingCert_ = minimumDate(values);
    timeDriftSleepTime_ = driftValue(values, "TimeDriftSleepTime");
    timeDriftThresholdValue_ = driftValue(values, "TimeDriftThresholdValue");
    continueOnServiceFailure_ = text(values, "continueOnServiceFailure") == "yes";
    checkRequired();
}

void DaemonConfiguration::checkRequired() const {
    std::string missing;
    const auto require = [&missing](const std::string& value, const std::string& key) {
        if (value.empty())
            missing += "'" + key + "' is not defined; ";
    };
    require(keywardDirectory_, "keywardDirectory");
    require(notificationGroup_, "notificationGroup");
    require(serviceConfigDirectory_, "serviceConfigDirectory");
    require(namePipesDirectory_, "namePipesDirectory");
    require(daemonUser_, "daemonUser");
    require(scriptsDirectory_, "scriptsDirectory");
    require(lockFile_, "lockFile");
    require(pidFile_, "pidFile");
    if (!missing.empty())
        throw std::runtime_error("Bad daemon configuration file : " + missing);
}

std::string DaemonConfiguration::getKeywardDirectory() {
    try {
        return getInstance().keywardDirectory_;
    } catch (...) {
        throw std::runtime_error(
            Failure::current().runtimeMessage("Runtime error caught while getting keywardd directory: ",
                                              "Std exception caught while getting keywardd directory: ",
                                              "Generic exception caught while getting keywardd directory."));
    }
}

std::string DaemonConfiguration::getNamePipesDirectory() {
    try {
        return getInstance().namePipesDirectory_;
    } catch (...) {
        throw std::runtime_error(Failure::current().runtimeMessage(
            "Runtime error caught while getting named pipes directory: ",
            "Standard exception caught while getting named pipes directory: ",
            "Generic exception caught while getting named pipes directory."));
    }
}

}  // namespace keywarden
