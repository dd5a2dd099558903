#include <stdexcept>

#include "testsupport/SilentCallbacks.h"

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    static testsupport::SilentCallbacks callbacks;
    return &callbacks;
}

extern "C" void destroy(keywarden::ServiceCallbacks* /*object*/) {
    throw std::runtime_error("still in use");
}
