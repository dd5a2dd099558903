#pragma once

#include <exception>

namespace keywarden {

/// One line at ERR, "<what> failed: <why>", from where nothing may be thrown any more: without memory for
/// that text the log gets `what` alone.
void logFailureAnyhow(const char* what, const char* why) noexcept;

/// Does a piece of a thread's work that ends neither the thread nor the process when it throws, as everything
/// may for want of memory. False when it did; what is logged. Only standard exceptions are caught: a
/// cancelled thread unwinds through here by force.
template <typename Work>
bool survives(const char* what, Work&& work) {
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        logFailureAnyhow(what, error.what());
        return false;
    }
}

}  // namespace keywarden
