#include "support/ThreadStack.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace keywarden {

namespace {

// This function's own calls and what a leaf function may use below its frame; the rest is whole pages. No
// signal is handled meanwhile: a handler's frame is gone before the call goes on.
constexpr std::uintptr_t kMargin = 1024;
// No call goes deeper. More than that may belong to others below the stack of the main thread, whose limit
// says how far it could grow; the kernel keeps that much free below what is in use of it.
constexpr std::uintptr_t kMostReturned = std::uintptr_t{1024} * 1024;

std::uintptr_t findLowestAddress() {
    pthread_attr_t attributes;
    if (::pthread_getattr_np(::pthread_self(), &attributes) != 0)
        return 0;
    void* address = nullptr;
    std::size_t size = 0;
    const bool known = ::pthread_attr_getstack(&attributes, &address, &size) == 0;
    ::pthread_attr_destroy(&attributes);
    return known ? reinterpret_cast<std::uintptr_t>(address) : 0;
}

// 0: not known. Looked for once a thread.
std::uintptr_t lowestAddress() {
    thread_local const std::uintptr_t lowest = findLowestAddress();
    return lowest;
}

}  // namespace

// Every target's stack grows downwards. Its own frame is the lowest that is in use, so it must not be inlined
// into one that has not been entered yet.
__attribute__((noinline)) void ThreadStack::giveBackUnused() {
    const int error = errno;
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    const std::uintptr_t end = (frame - kMargin) & ~(page - 1);
    const std::uintptr_t lowest = lowestAddress();
    const std::uintptr_t begin = std::max((lowest + page - 1) & ~(page - 1), end - kMostReturned);
    if (lowest != 0 && begin < end)
        // Nothing depends on it.
        static_cast<void>(::madvise(reinterpret_cast<void*>(begin),  // NOLINT(performance-no-int-to-ptr)
                                    end - begin, MADV_DONTNEED));
    errno = error;
}

}  // namespace keywarden
