// A callback library: it tells what happens to a service's certificates, one line an event, in a file that
// other programs can read or watch, /run/keywarden/<service>.events.
//
// The daemon loads it for every service whose file names it under "callbackLibrary", calls create() once and
// then the object's operations, each from whatever thread had the event, never two at a time for one service.
// While an operation runs the service waits: do little and return.

#include <keywarden/ServiceCallbacks.h>

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

class Events : public keywarden::ServiceCallbacks {
  public:
    explicit Events(const std::string& serviceId) : path_("/run/keywarden/" + serviceId + ".events") {}

    void started() override { tell("started"); }
    void stopped() override { tell("stopped"); }
    void allStarted() override { tell("all services have started"); }
    void newGeneratedCertificate(const std::string& id) override { tell("new certificate " + id); }
    void updateValidityGeneratedCertificate(int validIn, int expireIn) override {
        tell(validIn > 0 ? "valid in " + std::to_string(validIn) + " days"
                         : "ends in " + std::to_string(expireIn) + " days");
    }
    void newExternalCertificate(const std::string& store, const std::string& id) override {
        tell("trusts " + store + " " + id);
    }
    void revokedExternalCertificate(const std::string& store, const std::string& id) override {
        tell("no longer trusts " + store + " " + id);
    }
    void revokedExternalCertificate(const std::string& store, const std::vector<std::string>& ids) override {
        for (const std::string& id : ids)
            revokedExternalCertificate(store, id);
    }

  private:
    // A file that cannot be written must not keep the service from its work, so that is no error. The mode is
    // given because the daemon works with an empty umask.
    void tell(const std::string& event) const {
        const std::string line = event + "\n";
        const int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (file < 0)
            return;
        [[maybe_unused]] const ssize_t written = ::write(file, line.data(), line.size());
        ::close(file);
    }

    std::string path_;
};

}  // namespace

// What it was built for: a later daemon then calls nothing that is not there.
extern "C" const int keywarden_callbacks_version = keywarden::kCallbacksVersion;

// The two functions by which the daemon gets and gives back the object. It must be destroyed here, by the
// library that made it.
extern "C" keywarden::ServiceCallbacks* create(const std::string& serviceId) {
    return std::make_unique<Events>(serviceId).release();
}

extern "C" void destroy(keywarden::ServiceCallbacks* object) {
    const std::unique_ptr<keywarden::ServiceCallbacks> owned(object);
}
