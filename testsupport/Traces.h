#pragma once

#include <exception>
#include <functional>
#include <string>

#include "support/Debug.h"
#include "testsupport/Child.h"

namespace testsupport {

/// What `action` prints on standard error while debug traces are on. An exception of the action passes
/// through.
inline std::string tracesOf(const std::function<void()>& action) {
    std::exception_ptr failure;
    keywarden::gDebug = true;
    std::string traces = standardErrorOf([&] {
        try {
            action();
        } catch (...) {
            failure = std::current_exception();
        }
    });
    keywarden::gDebug = false;
    if (failure)
        std::rethrow_exception(failure);
    return traces;
}

}  // namespace testsupport
