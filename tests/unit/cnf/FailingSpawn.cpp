#include "tests/unit/cnf/FailingSpawn.h"

#include <dlfcn.h>
#include <spawn.h>

namespace {

bool failing = false;

struct NoStandardException {};

}  // namespace

FailingSpawn::FailingSpawn() {
    failing = true;
}

FailingSpawn::~FailingSpawn() {
    failing = false;
}

// Stands before the C library's.
extern "C" int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    if (failing) {
        throw NoStandardException();
    }
    const auto real = reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
    return real(pid, path, actions, attributes, arguments, environment);
}
