#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace keywardctl {

/// The device as the daemon's own configuration describes it: which services there are, where their files
/// stand, and whether the daemon lives.
class Device {
  public:
    /// Throws Problem when the daemon's configuration cannot be used.
    Device();

    /// In alphabetical order. Throws Problem when the folder cannot be read.
    [[nodiscard]] std::vector<std::string> services() const;
    /// Throws Problem unless the service is configured.
    void require(const std::string& service) const;

    /// The folder of a service's fifos and lock.
    [[nodiscard]] static std::string pipesFolder(const std::string& service);
    [[nodiscard]] static std::string notificationFifo();

    /// The process that the pid file names; nothing when it is gone or the lock file is.
    [[nodiscard]] std::optional<pid_t> daemon() const;
    /// The Problem that tells that there is no daemon (exit code 3). `evidence` says what was looked at.
    [[noreturn]] void throwNotRunning(const std::string& evidence = {}) const;

  private:
    std::string servicesFolder_;
    std::string pidFile_;
    std::string lockFile_;
};

/// What to tell a user who may not use a file of the given group; empty when everybody is told no.
[[nodiscard]] std::string membershipAdvice(gid_t group, const std::string& purpose);

}  // namespace keywardctl
