#include "ThreadShortage.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> attemptsLeft{0};
std::atomic<int> attemptsFailed{0};

bool isRefused() {
    const int left = attemptsLeft;
    if (left == 0)
        return false;
    if (left > 0)
        --attemptsLeft;
    ++attemptsFailed;
    return true;
}

}  // namespace

// Takes the place of the C library's function in this program, and calls it.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    if (isRefused()) {
        *thread = static_cast<pthread_t>(-1);  // undefined by then
        return EAGAIN;
    }
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, body, argument);
}

ThreadShortage::ThreadShortage(int attempts) {
    attemptsFailed = 0;
    attemptsLeft = attempts;
}

ThreadShortage::~ThreadShortage() {
    attemptsLeft = 0;
}

int ThreadShortage::attempts() {
    return attemptsFailed;
}
