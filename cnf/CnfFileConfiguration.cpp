#include "cnf/CnfFileConfiguration.h"

#include <sstream>
#include <stdexcept>

#include "channel/Answer.h"
#include "config/ConfigKeys.h"
#include "support/Debug.h"
#include "support/Exec.h"
#include "support/Failure.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

// Only one character is cut, whatever it is: a script whose last line has no line feed loses its last letter.
std::string withoutLastCharacter(std::string printed) {
    if (printed.find('\n') != std::string::npos) {
        printed.pop_back();
    }
    return printed;
}

std::string commonNameFromScript(const std::string& script) {
    zlk::Exec run({script, ""}, 0);
    debugTrace(run.standardError().str());
    debugTrace(run.standardOutput().str());
    return withoutLastCharacter(run.wholeOutput().str());
}

std::map<std::string, std::string> readSettings(const std::string& path) {
    try {
        std::istringstream file(readRegularFile(path, kLargestConfigurationFile));
        return Tools::getConfigMap(file);
    } catch (const std::runtime_error& error) {
        debugTrace(error.what());
        throw std::runtime_error("Failed to read configuration file-" + path);
    }
}

}  // namespace

CnfFileConfiguration::CnfFileConfiguration(const std::string& path) : path_(path) {
    debugTrace("Cnf File configuration: Reading '" + path + " ...'");
    sourceName_ = path;
    const std::map<std::string, std::string> settings = readSettings(path);
    loadConfiguration(settings);
    commonNameScript_ = valueOf(settings, SettingsKey::CommonNameScript);
}

std::string CnfFileConfiguration::getCN() const {
    try {
        if (!commonName_.empty()) {
            return commonName_;
        }
        std::string printed =
            commonNameScript_.empty() ? std::string() : commonNameFromScript(commonNameScript_);
        if (printed.empty()) {
            throw KeywardenDaemonException(AnswerCommonNameEmpty, "Common name is empty!");
        }
        return printed;
    } catch (...) {
        Log::write(SeverityError,
                   Failure::current().message("Daemon exception caught while calling getCN function:",
                                              "Std exception caught while calling getCN function:",
                                              "Unknown exception caught while calling getCN function."));
    }
    return std::string();
}

}  // namespace keywarden
