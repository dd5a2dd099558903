#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace keywarden {

/// Tries again, with growing pauses, what a service cannot have now and will have in a while: a thread.
///
/// Its lock is a leaf, held by nobody who waits for anything else.
class Retry {
  public:
    /// Few takes a second or two, Endless is as long as the service lives.
    enum class Attempts { One, Few, Endless };

    /// Each failure that is followed by another attempt is logged. False when the last one failed too, or
    /// when end() was called.
    [[nodiscard]] bool succeeds(const std::function<bool()>& attempt, Attempts attempts,
                                const std::string& failure);

    /// From now on nothing waits here.
    void end();

  private:
    std::mutex mutex_;
    std::condition_variable endingBegins_;
    bool ending_ = false;
};

}  // namespace keywarden
