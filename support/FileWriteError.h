#pragma once

#include <cstring>
#include <stdexcept>
#include <string>

namespace keywarden {

/// A file could not be written, or read or looked at for a reason that is not the file's own; errorNumber()
/// is the errno of the call that failed.
class FileWriteError : public std::runtime_error {
  public:
    FileWriteError(const std::string& message, int errorNumber)
        : std::runtime_error(message), errorNumber_(errorNumber) {}
    /// "<what> '<path>': <the errno's text>"
    FileWriteError(const std::string& what, const std::string& path, int errorNumber)
        : FileWriteError(what + " '" + path + "': " + std::strerror(errorNumber), errorNumber) {}

    [[nodiscard]] int errorNumber() const { return errorNumber_; }

  private:
    int errorNumber_;
};

}  // namespace keywarden
