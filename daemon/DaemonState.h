#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace keywarden {

class Service;

/// The daemon's services in start order. Written before the threads start and after they are joined; never
/// destroyed, since exit() may run while threads still use them.
std::vector<std::shared_ptr<Service>>& services();

/// Held by every network or time notification, and by every look at the network; always before a service
/// mutex.
extern std::mutex lock1;

// 0: no thread. Read by the signal watcher while main waits for the others.
extern std::atomic<pthread_t> threadNotificationHandler;
extern std::atomic<pthread_t> threadMonitorShutdownSigReceived;
extern std::atomic<pthread_t> threadMonitorTimeNetworkConfig;

}  // namespace keywarden
