#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include "support/KeywardenDaemonException.h"

/// The text of the std::runtime_error that the action throws; "no exception" when it throws nothing.
inline std::string runtimeErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no exception";
}

/// "<code> <text>" of the daemon's exception that the action throws; "no exception" when it throws nothing.
inline std::string daemonFailureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const keywarden::KeywardenDaemonException& error) {
        return std::to_string(error.code()) + " " + error.what();
    }
    return "no exception";
}
