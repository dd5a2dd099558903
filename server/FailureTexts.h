#pragma once

#include <string>
#include <string_view>

#include "support/KeywardenDaemonException.h"
#include "support/Log.h"

namespace keywarden {

/// How one guarded call reports its failure: what stands before the service's name, for the daemon's own
/// exception, a standard exception and anything else.
struct FailureTexts {
    std::string_view daemon;
    std::string_view standard;
    std::string_view unknown;
};

/// Inside a catch block: the prefix, the service, "' " and the exception's text, or "'." for anything that is
/// no standard exception.
[[nodiscard]] std::string describeFailure(const FailureTexts& texts, const std::string& service);

/// The step's result; its failure passes on as a KeywardenDaemonException with the texts.
template <typename Step>
auto orThrow(const FailureTexts& texts, const std::string& service, Step step) {
    try {
        return step();
    } catch (...) {
        throw KeywardenDaemonException(describeFailure(texts, service));
    }
}

/// Runs the step; its failure is logged at ERR and goes no further.
template <typename Step>
void orLog(const FailureTexts& texts, const std::string& service, Step step) {
    try {
        step();
    } catch (...) {
        Log::write(SeverityError, describeFailure(texts, service));
    }
}

}  // namespace keywarden
