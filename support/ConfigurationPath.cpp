#include "support/ConfigurationPath.h"

namespace keywarden {

const char* daemonConfigurationPath() {
    return "/etc/keywarden/config.daemon";
}

}  // namespace keywarden
