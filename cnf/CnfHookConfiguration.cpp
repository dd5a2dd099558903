#include "cnf/CnfHookConfiguration.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "support/Debug.h"
#include "support/Exec.h"
#include "support/Failure.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

std::map<std::string, std::string> runHook(const std::string& hookPath, const std::string& serviceName,
                                           bool selfSigned) {
    std::vector<std::string> arguments = {hookPath, serviceName};
    if (selfSigned) {
        arguments.emplace_back("selfsign");
    }
    zlk::Exec run(arguments, "", 0);
    debugTrace(run.standardError().str());
    return Tools::getConfigMap(run.wholeOutput());
}

}  // namespace

CnfHookConfiguration::CnfHookConfiguration(const std::string& hookPath, const std::string& serviceName,
                                           bool selfSigned) {
    debugTrace("Cnf hook configuration: Executing '" + hookPath + " for " + serviceName +
               (selfSigned ? " selfsign ...'" : "...'"));
    try {
        map_ = runHook(hookPath, serviceName, selfSigned);
        loadConfiguration(map_);
    } catch (...) {
        const std::string failure = "Failed to execute configuration hook - " + hookPath;
        throw std::runtime_error(Failure::current().message(failure + ": ", failure));
    }
}

}  // namespace keywarden
