#pragma once

#include <unistd.h>

#include <utility>

namespace keywarden {

/// Owns one file descriptor; -1 is none.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    /// Gives it up without closing it.
    int release() { return std::exchange(fd_, -1); }

    /// Keeps errno, so that it can stand on the path of a failure that is reported afterwards.
    void reset();

  private:
    int fd_ = -1;
};

}  // namespace keywarden
