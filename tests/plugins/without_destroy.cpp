#include "testsupport/SilentCallbacks.h"

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    static testsupport::SilentCallbacks callbacks;
    return &callbacks;
}
