#include "OpenHook.h"

#include <dlfcn.h>
#include <fcntl.h>

#include <cstdarg>
#include <utility>

namespace {

thread_local std::string awaitedPath;
thread_local std::function<void()> pendingAction;

}  // namespace

// Takes the place of the C library's function in this program, and calls it.
extern "C" int openat64(int folder, const char* path, int flags, ...) {
    unsigned mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, unsigned);
        va_end(arguments);
    }
    if (pendingAction && (flags & O_ACCMODE) == O_RDONLY && awaitedPath == path)
        std::exchange(pendingAction, nullptr)();
    using Open = int (*)(int, const char*, int, ...);
    static const auto next = reinterpret_cast<Open>(::dlsym(RTLD_NEXT, "openat64"));
    return next(folder, path, flags, mode);
}

OpenHook::OpenHook(std::string path, std::function<void()> action) {
    awaitedPath = std::move(path);
    pendingAction = std::move(action);
}

OpenHook::~OpenHook() {
    pendingAction = nullptr;
}

bool OpenHook::wasUsed() {
    return !pendingAction;
}
