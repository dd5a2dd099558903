#pragma once

#include <atomic>
#include <string>

namespace keywarden {

/// The values are the syslog priorities themselves (syslog(3)).
enum Severity {
    SeverityEmergency = 0,
    SeverityError = 3,
    SeverityWarning = 4,
    SeverityNotice = 5,
    SeverityInfo = 6,
};

/// The system log, with the identity "key-warden", echoed to standard error while gDebug is set.
class Log {
  public:
    /// Does nothing when the log is already open.
    static void open();

    /// Writes nothing anywhere while the log is closed. Returns whether it is open. Any thread may call it.
    static bool write(Severity severity, const std::string& message);

    static void close();

  private:
    static std::atomic<bool> s_open;
};

}  // namespace keywarden
