// A bad callback library: the service of the name of an operation hangs in it, for ever. It writes the
// operations that it has begun, each as a line of the file that Record.h names.

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "callbacks/ServiceCallbacks.h"
#include "tests/plugins/Record.h"

namespace {

void begin(const std::string& serviceId, const std::string& operation) {
    record(serviceId + ": " + operation);
    while (serviceId == operation)
        ::pause();
}

class Hanging : public keywarden::ServiceCallbacks {
  public:
    explicit Hanging(std::string serviceId) : serviceId_(std::move(serviceId)) {}

    void started() override { begin(serviceId_, "started"); }
    void stopped() override { begin(serviceId_, "stopped"); }
    void allStarted() override { begin(serviceId_, "allStarted"); }
    void newGeneratedCertificate(const std::string& /*id*/) override {
        // Of a service with a certificate already, so that it can be started.
        static int count = 0;
        begin(serviceId_, ++count > 1 ? "renewed" : "generated");
    }
    void updateValidityGeneratedCertificate(int /*validIn*/, int /*expireIn*/) override {
        begin(serviceId_, "validity");
    }
    void newExternalCertificate(const std::string& /*store*/, const std::string& /*id*/) override {}
    void revokedExternalCertificate(const std::string& /*store*/, const std::string& /*id*/) override {}
    void revokedExternalCertificate(const std::string& /*store*/,
                                    const std::vector<std::string>& /*ids*/) override {}

    [[nodiscard]] std::string serviceId() const { return serviceId_; }

  private:
    std::string serviceId_;
};

}  // namespace

extern "C" keywarden::ServiceCallbacks* create(const std::string& serviceId) {
    begin(serviceId, "create");
    return std::make_unique<Hanging>(serviceId).release();
}

extern "C" void destroy(keywarden::ServiceCallbacks* object) {
    const std::unique_ptr<keywarden::ServiceCallbacks> owned(object);
    begin(static_cast<const Hanging*>(object)->serviceId(), "destroy");
}
