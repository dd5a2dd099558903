#pragma once

#include <iosfwd>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace zlk {

/// A program that was killed at its time-out.
class ExecTimeout : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Runs a program to its end. A device may bring a platform library with a class of this name and shape; it
/// replaces this one at link time.
///
/// The program runs in a process group of its own, with an empty signal mask, default signal actions and no
/// descriptors but the three standard ones. Both its outputs are drained while it runs; of each, the first
/// MiB is kept. It has ended when the child exits, whatever background processes of it still hold its
/// outputs. At a time-out the whole group is killed. When the daemon is asked to stop, a running program gets
/// a short grace of its own (StopRequest::kGraceMilliseconds), as does one that is started later; it is then
/// killed, and the call returns normally.
class Exec {
  public:
    /// arguments[0] is the program's path. timeoutSeconds 0 is no time-out.
    /// Runs the program before it returns. Throws ExecTimeout when it was killed at the time-out, another
    /// std::runtime_error when it cannot be started: a std::system_error where the system says why.
    Exec(const std::vector<std::string>& arguments, unsigned timeoutSeconds);
    /// The same with a text on the program's standard input (otherwise /dev/null).
    Exec(const std::vector<std::string>& arguments, const std::string& input, unsigned timeoutSeconds);

    /// What the program printed.
    std::stringstream& standardOutput() { return output_; }
    std::stringstream& standardError() { return error_; }

    /// The same for readers that act on the whole text: throws std::runtime_error when more was printed than
    /// is kept, or when the program was ended by a stop of the daemon.
    std::stringstream& wholeOutput();

    /// The program was killed because the daemon stops.
    [[nodiscard]] bool interrupted() const { return interrupted_; }
    /// As wait(2) gives it.
    [[nodiscard]] int waitStatus() const { return waitStatus_; }
    /// "exit status 3" or "signal 9"; empty after a clean end.
    [[nodiscard]] std::string failureText() const;

  private:
    void run(const std::vector<std::string>& arguments, const std::string& input, unsigned timeoutSeconds);

    std::string program_;
    std::stringstream output_;
    std::stringstream error_;
    int waitStatus_ = 0;
    bool truncated_ = false;
    bool interrupted_ = false;
};

}  // namespace zlk
