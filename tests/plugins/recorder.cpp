// The example of a good callback library: it writes every event, with its arguments, as a line of the file
// that Record.h names.

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "callbacks/ServiceCallbacks.h"
#include "tests/plugins/Record.h"

namespace {

class Recorder : public keywarden::ServiceCallbacks {
  public:
    explicit Recorder(std::string serviceId) : serviceId_(std::move(serviceId)) { record("create"); }
    ~Recorder() override { record("destroy"); }

    void started() override {
        record("started");
        if (serviceId_ == "throwing")
            throw std::runtime_error("the owner is asleep");
    }
    void stopped() override { record("stopped"); }
    void allStarted() override { record("allStarted"); }
    void newGeneratedCertificate(const std::string& id) override { record("newGenerated " + id); }
    void updateValidityGeneratedCertificate(int validIn, int expireIn) override {
        // Not std::to_string: it brings a symbol that keeps a library loaded for ever, and a test looks
        // whether this one is gone.
        std::ostringstream line;
        line << "updateValidity " << validIn << " " << expireIn;
        record(line.str());
    }
    void newExternalCertificate(const std::string& store, const std::string& id) override {
        record("newExternal " + store + " " + id);
    }
    void revokedExternalCertificate(const std::string& store, const std::string& id) override {
        record("revokedOne " + store + " " + id);
    }
    void revokedExternalCertificate(const std::string& store, const std::vector<std::string>& ids) override {
        std::string line = "revokedSeveral " + store;
        for (const std::string& id : ids)
            line += " " + id;
        record(line);
    }

  private:
    void record(const std::string& line) const { ::record(serviceId_ + ": " + line); }

    std::string serviceId_;
};

}  // namespace

extern "C" keywarden::ServiceCallbacks* create(const std::string& serviceId) {
    return std::make_unique<Recorder>(serviceId).release();
}

extern "C" void destroy(keywarden::ServiceCallbacks* object) {
    const std::unique_ptr<keywarden::ServiceCallbacks> owned(object);
}
