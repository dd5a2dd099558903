#pragma once

#include <string>

#include "testsupport/Sandbox.h"

namespace testsupport {

/// A device in a folder of its own: the daemon's configuration, its folders and its network script. One for
/// the life of the test program, since the daemon's configuration is read once; tests use service names of
/// their own. Takes the place of the configuration path (a link-time seam).
class TestDevice {
  public:
    static TestDevice& get();

    [[nodiscard]] const Sandbox& sandbox() const { return sandbox_; }
    [[nodiscard]] std::string keywardDirectory() const { return sandbox_.path("keyward"); }
    [[nodiscard]] std::string pipesDirectory() const { return sandbox_.path("pipes"); }
    [[nodiscard]] std::string servicesDirectory() const { return sandbox_.path("services"); }
    [[nodiscard]] std::string scriptsDirectory() const { return sandbox_.path("scripts"); }

    /// What "network.sh" prints from now on. The process-wide network configuration still has to be reloaded.
    void setNetwork(const std::string& printed) const;

    /// Writes the service's configuration file and returns its path.
    std::string writeService(const std::string& id, const std::string& content) const;

    /// A group of this machine that the running user may give to its files.
    [[nodiscard]] static std::string group();

  private:
    TestDevice();
    Sandbox sandbox_;
};

}  // namespace testsupport
