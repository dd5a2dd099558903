#include "daemon/DaemonState.h"

#include "service/Service.h"
#include "support/NeverDestroyed.h"

namespace keywarden {

std::mutex lock1;
std::atomic<pthread_t> threadNotificationHandler{0};
std::atomic<pthread_t> threadMonitorShutdownSigReceived{0};
std::atomic<pthread_t> threadMonitorTimeNetworkConfig{0};

std::vector<std::shared_ptr<Service>>& services() {
    static NeverDestroyed<std::vector<std::shared_ptr<Service>>> all;
    return *all;
}

}  // namespace keywarden
