#pragma once

#include <cstdint>
#include <functional>
#include <new>
#include <string>

#include "tests/unit/x509memory/RefusedMemory.h"

/// What a try may end in beside the right result.
enum class Allowed {
    AnyFailure,  ///< any std::exception
    OutOfMemory  ///< std::bad_alloc alone: another exception would say something about the data
};

/// What came of refusing every single request for memory of an operation, one a try.
struct Refusals {
    std::uint64_t tries = 0;
    std::uint64_t failures = 0;  ///< tries that ended in an exception
    std::string deviations;      ///< wrong results and wrong exceptions

    /// For the way out of a child process.
    [[nodiscard]] std::string text() const {
        return deviations + "(" + std::to_string(tries) + " tries, " + std::to_string(failures) +
               " failures)";
    }
};

/// Performs the operation without a fault, then with its first, second, ... request refused until it asks no
/// more; after each of them once more without. `contentOf` tells what a result holds; the result that was got
/// under a fault has to hold what the first one holds, or there must be none.
template <typename Result>
Refusals everyRefusal(const std::function<Result()>& perform,
                      const std::function<std::string(const Result&)>& contentOf, Allowed allowed,
                      std::uint64_t step = 1) {
    Refusals refusals;
    const std::string content = contentOf(perform());
    const auto note = [&refusals](std::uint64_t request, const std::string& text) {
        if (refusals.deviations.size() < 2000)
            refusals.deviations += "request " + std::to_string(request) + ": " + text + "\n";
    };
    const auto compare = [&](std::uint64_t request, const Result& result, const std::string& when) {
        const std::string got = contentOf(result);
        if (got != content)
            note(request, when + " it holds '" + got + "' instead of '" + content + "'");
    };
    bool asksMore = true;
    for (std::uint64_t request = 1; asksMore; request += step) {
        try {
            const Result result = [&] {
                const RefusedMemory refused(request);
                return perform();
            }();
            compare(request, result, "under the fault");
        } catch (const std::bad_alloc&) {
            ++refusals.failures;
        } catch (const std::exception& failure) {
            ++refusals.failures;
            if (allowed == Allowed::OutOfMemory)
                note(request, std::string("failed with ") + failure.what());
        }
        asksMore = RefusedMemory::struck();
        refusals.tries += asksMore ? 1 : 0;
        try {
            compare(request, perform(), "after it");
        } catch (const std::exception& failure) {
            note(request, std::string("after it it failed with ") + failure.what());
        }
    }
    return refusals;
}
