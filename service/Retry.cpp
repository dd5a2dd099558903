#include "service/Retry.h"

#include <chrono>
#include <cstdint>

#include "support/GrowingPause.h"
#include "support/Log.h"

namespace keywarden {

namespace {

constexpr int kFewAttempts = 5;

}  // namespace

bool Retry::succeeds(const std::function<bool()>& attempt, Attempts attempts, const std::string& failure) {
    GrowingPause pause;
    for (int made = 1; !attempt(); ++made) {
        if (attempts == Attempts::One || (attempts == Attempts::Few && made == kFewAttempts))
            return false;
        const std::int64_t wait = pause.next();
        Log::write(SeverityError, failure + ". It is tried again in " + std::to_string(wait) + " ms.");
        // Not a wait that can be cancelled: callers are in the middle of their work.
        std::unique_lock<std::mutex> guard(mutex_);
        if (endingBegins_.wait_for(guard, std::chrono::milliseconds(wait), [this] { return ending_; }))
            return false;
    }
    return true;
}

void Retry::end() {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        ending_ = true;
    }
    endingBegins_.notify_all();
}

}  // namespace keywarden
