#include <exception>
#include <string>

#include "callbacks/ServiceCallbacks.h"

namespace {

// A type that only this library knows: its text and its destructor go with the library.
class NoLicence : public std::exception {
  public:
    [[nodiscard]] const char* what() const noexcept override { return "no licence"; }
};

}  // namespace

extern "C" keywarden::ServiceCallbacks* create(const std::string& serviceId) {
    if (serviceId == "odd")
        throw 42;
    throw NoLicence();
}

extern "C" void destroy(keywarden::ServiceCallbacks* /*object*/) {}
