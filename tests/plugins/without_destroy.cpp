#include "tests/plugins/SilentCallbacks.h"

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    static SilentCallbacks callbacks;
    return &callbacks;
}
