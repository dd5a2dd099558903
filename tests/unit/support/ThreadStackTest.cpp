#include "support/ThreadStack.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/Cancellation.h"

namespace {

using keywarden::Cancellation;
using keywarden::ThreadStack;

constexpr std::size_t kDeep = std::size_t{256} * 1024;

struct Depth {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

// Touches so much of the stack below the caller.
__attribute__((noinline)) Depth goDeep() {
    volatile unsigned char
        used[kDeep];  // NOLINT(modernize-avoid-c-arrays): nothing may keep it off the stack
    for (std::size_t i = 0; i < kDeep; i += 512)
        used[i] = static_cast<unsigned char>(i);
    return {reinterpret_cast<std::uintptr_t>(&used[0]), reinterpret_cast<std::uintptr_t>(&used[kDeep - 1])};
}

// KiB of it that are in memory.
std::size_t residentKib(const Depth& depth) {
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t begin = (depth.begin + page - 1) & ~(page - 1);
    const std::uintptr_t end = depth.end & ~(page - 1);
    std::vector<unsigned char> state((end - begin) / page);
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    if (::mincore(reinterpret_cast<void*>(begin), end - begin, state.data()) != 0)
        return 0;
    std::size_t resident = 0;
    for (const unsigned char one : state)
        resident += one & 1U;
    return resident * page / 1024;
}

TEST(ThreadStack, WhatDeepCallsHaveLeftIsGivenBack) {
    std::thread([] {
        const Depth depth = goDeep();
        ASSERT_GT(residentKib(depth), 200U);
        errno = ENOTTY;
        ThreadStack::giveBackUnused();
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_LT(residentKib(depth), 40U);
        EXPECT_LT(goDeep().begin, depth.end);
    }).join();
}

TEST(ThreadStack, OfTheMainThreadAsWell) {
    const Depth depth = goDeep();
    ASSERT_GT(residentKib(depth), 200U);
    ThreadStack::giveBackUnused();
    EXPECT_LT(residentKib(depth), 40U);
}

TEST(ThreadStack, OfASmallThreadIsLeftWithinItsBounds) {
    pthread_attr_t small;
    ::pthread_attr_init(&small);
    ASSERT_EQ(::pthread_attr_setstacksize(&small, std::size_t{128} * 1024), 0);
    pthread_t thread = 0;
    // A neighbour below it would be empty afterwards.
    ASSERT_EQ(::pthread_create(
                  &thread, &small,
                  [](void*) -> void* {
                      for (int i = 0; i < 100; ++i)
                          ThreadStack::giveBackUnused();
                      return nullptr;
                  },
                  nullptr),
              0);
    ::pthread_join(thread, nullptr);
    ::pthread_attr_destroy(&small);
}

TEST(ThreadStack, FramesInUseKeepWhatIsInThem) {
    std::thread([] {
        std::vector<int> wanted;
        volatile int own[64];  // NOLINT(modernize-avoid-c-arrays): on the stack, close to the end in use
        for (int i = 0; i < 64; ++i) {
            own[i] = 3 * i;
            wanted.push_back(3 * i);
        }
        goDeep();
        ThreadStack::giveBackUnused();
        std::vector<int> found;
        for (const volatile int& one : own)
            found.push_back(int{one});
        EXPECT_EQ(found, wanted);
    }).join();
}

TEST(ThreadStack, IsGivenBackBeforeALongWaitAndNotBeforeAShortOne) {
    std::thread([] {
        const Depth depth = goDeep();
        Cancellation::sleep(1);
        Cancellation::poll(nullptr, 0, 1);
        EXPECT_GT(residentKib(depth), 200U);
        pollfd broken{-1, 0, 0};
        std::thread waker([] {});
        waker.join();
        // Ends at once: the descriptor is bad in a way that poll tells of.
        broken.fd = 1 << 20;
        Cancellation::poll(&broken, 1, -1);
        EXPECT_LT(residentKib(depth), 40U);
    }).join();
}

}  // namespace
