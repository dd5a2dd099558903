#include "tests/unit/callbacks/FailingStart.h"

#include <dlfcn.h>
#include <spawn.h>

#include <atomic>

namespace {

std::atomic<int> errorNumber{0};
std::atomic<int> failuresLeft{0};
std::atomic<int> made{0};

}  // namespace

// Stands before the C library's.
extern "C" int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    ++made;
    if (failuresLeft > 0) {
        --failuresLeft;
        return errorNumber;
    }
    const auto real = reinterpret_cast<decltype(&posix_spawn)>(::dlsym(RTLD_NEXT, "posix_spawn"));
    return real(pid, path, actions, attributes, arguments, environment);
}

FailingStart::FailingStart(int error, int starts) {
    errorNumber = error;
    made = 0;
    failuresLeft = starts;
}

FailingStart::~FailingStart() {
    failuresLeft = 0;
}

int FailingStart::starts() {
    return made;
}
