// The example of a callback library with trouble of its own. The environment names a file with one line: an
// event, a kind of exception and the text. It throws that from that event, and from no other.

#include <cstdlib>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/KeywardenDaemonException.h"
#include "testsupport/SilentCallbacks.h"

namespace {

void happens(const std::string& event) {
    const char* const path = std::getenv("CALLBACK_THROWS");
    if (path == nullptr)
        return;
    std::ifstream file(path);
    std::string wanted;
    std::string kind;
    std::string text;
    file >> wanted >> kind >> std::ws;
    std::getline(file, text);
    if (wanted != event)
        return;
    if (kind == "daemon")
        throw keywarden::KeywardenDaemonException(text);
    if (kind == "coded")
        throw keywarden::KeywardenDaemonException(42, text);
    if (kind == "runtime")
        throw std::runtime_error(text);
    if (kind == "memory")
        throw std::bad_alloc();
    if (kind == "standard")
        throw std::logic_error(text);
    throw 42;
}

class Throwing : public testsupport::SilentCallbacks {
  public:
    void started() override { happens("started"); }
    void stopped() override { happens("stopped"); }
    void allStarted() override { happens("allStarted"); }
    void newGeneratedCertificate(const std::string& /*id*/) override { happens("newGenerated"); }
    void updateValidityGeneratedCertificate(int /*validIn*/, int /*expireIn*/) override {
        happens("updateValidity");
    }
    void newExternalCertificate(const std::string& /*store*/, const std::string& /*id*/) override {
        happens("newExternal");
    }
};

}  // namespace

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    static Throwing callbacks;
    return &callbacks;
}

extern "C" void destroy(keywarden::ServiceCallbacks* /*object*/) {}
