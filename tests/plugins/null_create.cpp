#include "callbacks/ServiceCallbacks.h"

extern "C" void destroy(keywarden::ServiceCallbacks* /*object*/) {}
