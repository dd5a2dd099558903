#include <string>

#include "callbacks/ServiceCallbacks.h"

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    return nullptr;
}

extern "C" void destroy(keywarden::ServiceCallbacks* /*object*/) {}
