// A callback library with a thread of its own that goes on for ever, whatever becomes of the object, and with
// something to do at the end of the process.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "tests/plugins/Record.h"
#include "testsupport/SilentCallbacks.h"

namespace {

struct AtTheEnd {
    AtTheEnd() = default;
    AtTheEnd(const AtTheEnd&) = delete;
    AtTheEnd& operator=(const AtTheEnd&) = delete;
    ~AtTheEnd() { record("end of the process"); }
};
const AtTheEnd atTheEnd;

std::atomic<unsigned long> turns{0};

void* goOn(void* /*unused*/) {
    for (;; ++turns)
        ::usleep(100);
}

class Threaded : public testsupport::SilentCallbacks {
  public:
    Threaded() {
        pthread_t thread = 0;
        if (::pthread_create(&thread, nullptr, goOn, nullptr) == 0)
            ::pthread_detach(thread);
    }
};

}  // namespace

extern "C" keywarden::ServiceCallbacks* create(const std::string& /*serviceId*/) {
    return std::make_unique<Threaded>().release();
}

extern "C" void destroy(keywarden::ServiceCallbacks* object) {
    const std::unique_ptr<keywarden::ServiceCallbacks> owned(object);
    record("destroy");
}
