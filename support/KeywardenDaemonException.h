#pragma once

#include <exception>
#include <string>
#include <utility>

namespace keywarden {

/// The daemon's own failure: a text and, where a requester is told of it, a numeric code.
/// Codes in use: 1 source certificate missing, 8 empty common name, 9 not a valid certificate, 21 pending
/// request unreadable, 26 certificate does not match the request, 42 store full, 43 already present.
class KeywardenDaemonException : public std::exception {
  public:
    explicit KeywardenDaemonException(std::string message) : message_(std::move(message)) {}
    KeywardenDaemonException(int code, std::string message) : code_(code), message_(std::move(message)) {}

    [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

    /// 0 when the failure carries no code.
    [[nodiscard]] int code() const noexcept { return code_; }

  private:
    int code_ = 0;
    std::string message_;
};

}  // namespace keywarden
