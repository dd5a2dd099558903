#include "config/DaemonConfiguration.h"

#include <sstream>
#include <stdexcept>

#include "config/ConfigValues.h"
#include "support/ConfigurationPath.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/NeverDestroyed.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

ConfigValues readFile(const std::string& path) {
    try {
        std::istringstream file(readRegularFile(path, kLargestConfigurationFile));
        return ConfigValues(Tools::getConfigFileMap(file));
    } catch (const std::runtime_error& error) {
        debugTrace(error.what());
        throw std::runtime_error("Failed to open configuration file : " + path);
    }
}

// Unlike those of a service, the numbers of this file are read even from an empty value, which is none.
std::int64_t minimumDate(const ConfigValues& values) {
    const ConfigKey key = DaemonKey::MinDateForGeneratingCert;
    return values.isSet(key) ? std::stoll(values.text(key)) : key.row().absent;
}

// Both drift values are reported under the name of the first.
std::int32_t driftValue(const ConfigValues& values, const ConfigKey& key) {
    if (!values.isSet(key))
        return static_cast<std::int32_t>(key.row().absent);
    const std::string name = "caught while getting the value for TimeDriftSleepTime in api: ";
    try {
        return std::stoi(values.text(key));
    } catch (const std::invalid_argument& error) {
        throw std::runtime_error("Std exception invalid argument " + name + error.what());
    } catch (const std::out_of_range& error) {
        throw std::runtime_error("Std exception out of range " + name + error.what());
    } catch (...) {
        throw std::runtime_error("Generic exception caught while getting value for TimeDriftSleepTime.");
    }
}

/// Throws std::runtime_error that names every required key without a value.
void checkRequired(const ConfigValues& values) {
    std::string missing;
    for (const KeyRow& row : daemonKeys()) {
        if (row.need == Need::Required && !values.has(row))
            missing.append("'").append(row.name).append("' is not defined; ");
    }
    if (!missing.empty())
        throw std::runtime_error("Bad daemon configuration file : " + missing);
}

}  // namespace

DaemonConfiguration& DaemonConfiguration::getInstance() {
    static NeverDestroyed<DaemonConfiguration> instance{std::string(daemonConfigurationPath())};
    return *instance;
}

DaemonConfiguration::DaemonConfiguration(const std::string& path) {
    const ConfigValues values = readFile(path);
    keywardDirectory_ = values.text(DaemonKey::KeywardDirectory);
    notificationGroup_ = values.text(DaemonKey::NotificationGroup);
    serviceConfigDirectory_ = values.text(DaemonKey::ServiceConfigDirectory);
    namePipesDirectory_ = values.text(DaemonKey::NamePipesDirectory);
    daemonUser_ = values.text(DaemonKey::DaemonUser);
    scriptsDirectory_ = values.text(DaemonKey::ScriptsDirectory);
    lockFile_ = values.text(DaemonKey::LockFile);
    pidFile_ = values.text(DaemonKey::PidFile);
    minDateForGeneratingCert_ = minimumDate(values);
    timeDriftSleepTime_ = driftValue(values, DaemonKey::TimeDriftSleepTime);
    timeDriftThresholdValue_ = driftValue(values, DaemonKey::TimeDriftThresholdValue);
    continueOnServiceFailure_ = values.isYes(DaemonKey::ContinueOnServiceFailure);
    checkRequired(values);
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
