#pragma once

#include <exception>
#include <string>
#include <utility>

namespace keywarden {

/// The daemon's own failure: a text and, where a requester is to know it by its code, that of the answer.
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
