#pragma once

#include <functional>

namespace keywarden {

/// Runs `body`, which calls into an owner's library, in a thread of its own, and waits for its end. What it
/// throws passes through. Once a stop of the daemon is asked for the wait has the grace of StopRequest; then
/// this returns false and the thread is left to itself: `body` must hold everything it uses.
/// Where there is no thread to be had it is run by the caller, without an end to the wait.
[[nodiscard]] bool runOrGiveUp(std::function<void()> body);

}  // namespace keywarden
