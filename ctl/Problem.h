#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

#include "ctl/ExitCode.h"

namespace keywardctl {

/// Why a command ends, in words for its user, and the exit code that goes with it.
class Problem : public std::runtime_error {
  public:
    Problem(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}

    [[nodiscard]] ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

/// "<what> '<path>': <the system's reason>"
inline std::string fileProblem(const std::string& what, const std::string& path, int error) {
    return what + " '" + path + "': " + std::strerror(error);
}

}  // namespace keywardctl
