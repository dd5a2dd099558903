#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "service/Retry.h"
#include "service/TimerControl.h"

namespace keywarden {

class ServiceConfiguration;

/// The daily check of one service: when it is due, and the thread that waits for it.
///
/// It may be started and stopped by several threads at a time, and by one that holds the service mutex, for
/// which the timer then gives up waiting.
class ServiceTimer {
  public:
    /// `check` is called with the service mutex held, in a thread that ends with it; what it throws is
    /// logged. All of them must outlive the timer; the configuration changes only while it is stopped.
    ServiceTimer(const ServiceConfiguration& configuration, std::mutex& serviceMutex, Retry& retry,
                 std::function<void()> check);

    /// Starts the timer of a service with a server, and ends that of one without.
    void init(Retry::Attempts attempts);
    /// Throws KeywardenDaemonException when there is no thread to be had. Only the first start needs one.
    void start(Retry::Attempts attempts);
    /// Logs it when there is no thread to be had.
    void restart();
    /// The second half of it.
    void startAgain();
    void stop();
    /// The same without a line.
    void park();
    /// Stops it and ends its thread, without a line.
    void end();

    /// Seconds from `now` (since the epoch) to the next daily check, which is due `offset` seconds before
    /// midnight UTC.
    [[nodiscard]] static std::int64_t secondsUntilCheck(std::int64_t now, std::uint32_t offset);

  private:
    static void* body(void* timer);
    void run();

    const ServiceConfiguration& configuration_;
    std::mutex& serviceMutex_;
    Retry& retry_;
    std::function<void()> check_;
    // The last: its thread ends before what it uses.
    TimerControl control_;
};

}  // namespace keywarden
