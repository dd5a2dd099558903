#include "support/Cancellation.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/GrowingPause.h"
#include "support/UniqueFd.h"
#include "support/Wakeup.h"

namespace {

using keywarden::Cancellation;
using keywarden::UniqueFd;
using keywarden::Wakeup;
using Milliseconds = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

Milliseconds since(const Clock::time_point& start) {
    return std::chrono::duration_cast<Milliseconds>(Clock::now() - start);
}

/// A thread that is stopped as the daemon stops its own: cancel, then join.
class Cancellable {
  public:
    Cancellable(void* (*body)(void*), void* argument) {
        if (::pthread_create(&thread_, nullptr, body, argument) != 0)
            throw std::runtime_error("no thread");
    }
    Cancellable(const Cancellable&) = delete;
    Cancellable& operator=(const Cancellable&) = delete;
    ~Cancellable() { stop(); }

    /// Whether it was cancelled rather than ended by itself.
    bool stop() {
        if (stopped_)
            return cancelled_;
        stopped_ = true;
        ::pthread_cancel(thread_);
        void* result = nullptr;
        ::pthread_join(thread_, &result);
        cancelled_ = result == PTHREAD_CANCELED;
        return cancelled_;
    }

    [[nodiscard]] pthread_t handle() const { return thread_; }

  private:
    pthread_t thread_{};
    bool stopped_ = false;
    bool cancelled_ = false;
};

struct Flags {
    std::atomic<bool> entered{false};
    std::atomic<bool> passed{false};
    std::atomic<bool> unwound{false};
    std::atomic<bool> result{false};
    std::mutex mutex;
};

struct Unwinding {
    explicit Unwinding(Flags& noted) : flags(noted) {}
    Unwinding(const Unwinding&) = delete;
    Unwinding& operator=(const Unwinding&) = delete;
    ~Unwinding() { flags.unwound = true; }
    Flags& flags;
};

void waitFor(const std::atomic<bool>& flag) {
    while (!flag)
        std::this_thread::sleep_for(Milliseconds(1));
}

TEST(Cancellation, PreparedThreadIsCancelledOnlyWithinAWait) {
    Flags flags;
    Cancellable thread(
        [](void* argument) -> void* {
            auto& noted = *static_cast<Flags*>(argument);
            noted.result = Cancellation::prepareThread();
            const Unwinding unwinding(noted);
            noted.entered = true;
            // All of these are cancellation points of the C library.
            for (int i = 0; i < 20; ++i) {
                ::usleep(5000);
                ::pthread_testcancel();
            }
            noted.passed = true;
            Cancellation::sleep(60000);
            return nullptr;
        },
        &flags);
    waitFor(flags.entered);
    EXPECT_TRUE(thread.stop());
    EXPECT_TRUE(flags.result);
    EXPECT_TRUE(flags.passed) << "cancelled outside the wrappers";
    EXPECT_TRUE(flags.unwound) << "its objects were not destroyed";
}

TEST(Cancellation, PreparedThreadWorksWithTheDeferredType) {
    Flags flags;
    Cancellable thread(
        [](void* argument) -> void* {
            Cancellation::prepareThread();
            int type = -1;
            ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
            static_cast<Flags*>(argument)->result = type == PTHREAD_CANCEL_DEFERRED;
            return nullptr;
        },
        &flags);
    EXPECT_FALSE(thread.stop());
    EXPECT_TRUE(flags.result);
}

TEST(Cancellation, SleepTakesItsTime) {
    const auto start = Clock::now();
    EXPECT_TRUE(Cancellation::sleep(120));
    EXPECT_GE(since(start), Milliseconds(119));
    EXPECT_LT(since(start), Milliseconds(2000));
    EXPECT_TRUE(Cancellation::sleep(0));
}

TEST(Cancellation, SleepCutShortByASignalSaysSo) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ::sigaction(SIGUSR1, &action, &before);
    Flags flags;
    Cancellable thread(
        [](void* argument) -> void* {
            auto& noted = *static_cast<Flags*>(argument);
            Cancellation::prepareThread();
            noted.entered = true;
            noted.result = Cancellation::sleep(60000);
            noted.passed = true;
            return nullptr;
        },
        &flags);
    waitFor(flags.entered);
    while (!flags.passed) {
        ::pthread_kill(thread.handle(), SIGUSR1);
        std::this_thread::sleep_for(Milliseconds(5));
    }
    EXPECT_FALSE(thread.stop());
    EXPECT_FALSE(flags.result);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(Cancellation, WaitEndsWhenItIsGivenOrItsTimeHasPassed) {
    Wakeup wakeup;
    const auto start = Clock::now();
    EXPECT_FALSE(wakeup.wait(120));
    EXPECT_GE(since(start), Milliseconds(119));
    wakeup.give();
    EXPECT_TRUE(wakeup.wait(60000)) << "given before the wait";
    EXPECT_FALSE(wakeup.wait(0)) << "one wait only";
    std::thread giving([&wakeup] {
        std::this_thread::sleep_for(Milliseconds(30));
        wakeup.give();
    });
    EXPECT_TRUE(wakeup.wait(60000));
    giving.join();
    EXPECT_LT(since(start), Milliseconds(10000));
}

TEST(Cancellation, WaitIsAPlaceToBeCancelled) {
    Flags flags;
    Cancellable thread(
        [](void* argument) -> void* {
            auto& noted = *static_cast<Flags*>(argument);
            Cancellation::prepareThread();
            const Unwinding unwinding(noted);
            Wakeup wakeup;
            noted.entered = true;
            wakeup.wait(60000);
            noted.passed = true;
            return nullptr;
        },
        &flags);
    waitFor(flags.entered);
    EXPECT_TRUE(thread.stop());
    EXPECT_FALSE(flags.passed);
    EXPECT_TRUE(flags.unwound);
}

TEST(GrowingPause, DoublesUpToTheLongest) {
    keywarden::GrowingPause pause(100, 500);
    for (const std::int64_t expected : {100, 200, 400, 500, 500})
        EXPECT_EQ(pause.next(), expected);
}

TEST(Cancellation, PollTellsWhatIsReady) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    pollfd waiting{readEnd.get(), POLLIN, 0};
    EXPECT_EQ(Cancellation::poll(&waiting, 1, 10), 0);
    ASSERT_EQ(::write(writeEnd.get(), "x", 1), 1);
    EXPECT_EQ(Cancellation::poll(&waiting, 1, -1), 1);
    EXPECT_EQ(waiting.revents, POLLIN);
}

TEST(Cancellation, WaitsLeaveTheCallersOwnStateAsItWas) {
    int state = -1;
    Cancellation::sleep(1);
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE) << "main's";
    std::mutex mutex;
    Cancellation::lock(mutex);
    mutex.unlock();
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
}

TEST(Cancellation, LockWaitsForTheOwner) {
    Flags flags;
    flags.mutex.lock();
    Cancellable thread(
        [](void* argument) -> void* {
            auto& noted = *static_cast<Flags*>(argument);
            Cancellation::prepareThread();
            noted.entered = true;
            Cancellation::lock(noted.mutex);
            const std::lock_guard<std::mutex> guard(noted.mutex, std::adopt_lock);
            noted.passed = true;
            return nullptr;
        },
        &flags);
    waitFor(flags.entered);
    std::this_thread::sleep_for(Milliseconds(30));
    EXPECT_FALSE(flags.passed);
    flags.mutex.unlock();
    waitFor(flags.passed);
    EXPECT_FALSE(thread.stop());
}

TEST(Cancellation, WaiterForALockCanBeStoppedByItsOwner) {
    Flags flags;
    const std::lock_guard<std::mutex> guard(flags.mutex);
    Cancellable thread(
        [](void* argument) -> void* {
            auto& noted = *static_cast<Flags*>(argument);
            Cancellation::prepareThread();
            noted.entered = true;
            Cancellation::lock(noted.mutex);
            return nullptr;
        },
        &flags);
    waitFor(flags.entered);
    const auto start = Clock::now();
    EXPECT_TRUE(thread.stop());
    EXPECT_LT(since(start), Milliseconds(1000));
}

struct Worker {
    std::mutex mutex;
    std::atomic<int> inside{0};
    std::atomic<long> rounds{0};
};

// Everything that must not meet a cancellation: memory, a lock, a kept exception.
void* workAndSleep(void* argument) {
    Cancellation::prepareThread();
    auto& worker = *static_cast<Worker*>(argument);
    for (;;) {
        Cancellation::lock(worker.mutex);
        {
            const std::lock_guard<std::mutex> guard(worker.mutex, std::adopt_lock);
            ++worker.inside;
            try {
                throw std::runtime_error(std::string(100, 'x'));
            } catch (...) {
                ++worker.rounds;
            }
            --worker.inside;
        }
        const std::string kept(200, 'y');
        Cancellation::sleep(worker.rounds % 2);
    }
}

TEST(Cancellation, ThreeThousandStopsAtRandomMoments) {
    Worker worker;
    std::mt19937 random(4711);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same moments in every run
    std::uniform_int_distribution<int> pause(0, 400);
    Milliseconds worst(0);
    for (int i = 0; i < 3000; ++i) {
        Cancellable thread(workAndSleep, &worker);
        if (i % 3 != 0)
            std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
        const auto start = Clock::now();
        EXPECT_TRUE(thread.stop());
        worst = std::max(worst, since(start));
        ASSERT_EQ(worker.inside, 0);
        ASSERT_TRUE(worker.mutex.try_lock()) << "cancelled with the lock held";
        worker.mutex.unlock();
    }
    EXPECT_GT(worker.rounds, 500);
    EXPECT_LT(worst, Milliseconds(1000));
}

}  // namespace
