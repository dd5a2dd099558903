#pragma once

#include <map>
#include <string>

#include "cnf/CnfConfiguration.h"

namespace keywarden {

/// Request settings from the standard output of a hook program.
class CnfHookConfiguration : public CnfConfiguration {
  public:
    /// Runs the hook with the service's name and, for a self-signed certificate, "selfsign". Throws
    /// std::runtime_error when it cannot be run; its exit status does not count.
    CnfHookConfiguration(const std::string& hookPath, const std::string& serviceName, bool selfSigned);

  private:
    std::map<std::string, std::string> map_;
};

}  // namespace keywarden
