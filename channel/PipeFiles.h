#pragma once

#include <sys/types.h>

#include <string>

namespace keywarden {

// What daemon and requesters meet at: names in the folder of the pipes, and their modes.

/// A service's folder: its management group makes the output fifos there.
constexpr mode_t kPipesFolderMode = 0770;
/// Of every fifo that the daemon reads: its group writes it.
constexpr mode_t kInputFifoMode = 0720;
constexpr mode_t kRequesterLockMode = 0760;

/// Takes notifications (channel/Notification.h) for the daemon as a whole.
constexpr const char* kNotificationFifo = "notification.signal";

/// Takes the requests to a service; in the service's folder, like the others below.
[[nodiscard]] inline std::string inputFifoOf(const std::string& service) {
    return service + ".in";
}

/// Made by a requester, and takes the answer.
[[nodiscard]] inline std::string outputFifoOf(const std::string& service) {
    return service + ".out";
}

/// Locked by a requester for as long as the output fifo is its own.
[[nodiscard]] inline std::string requesterLockOf(const std::string& service) {
    return service + ".lock";
}

}  // namespace keywarden
