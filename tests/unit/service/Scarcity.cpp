#include "Scarcity.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <string>

namespace {

std::atomic<int> opensLeft{0};
std::atomic<int> looksLeft{0};
std::atomic<int> failed{0};
std::atomic<int> errorNumber{0};

bool isOutput(const std::string& path) {
    const std::string ending = ".out";
    return path.size() > ending.size() &&
           path.compare(path.size() - ending.size(), ending.size(), ending) == 0;
}

bool isOpenOutput(int file) {
    std::array<char, 512> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
    return size > 0 && isOutput(std::string(path.data(), static_cast<std::size_t>(size)));
}

bool fails(std::atomic<int>& left) {
    if (left <= 0)
        return false;
    --left;
    ++failed;
    errno = errorNumber;
    return true;
}

}  // namespace

// These take the place of the C library's functions in this program, and call them.

extern "C" int openat64(int folder, const char* path, int flags, ...) {
    unsigned mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, unsigned);
        va_end(arguments);
    }
    // An answer's fifo is kept open by its number too, which needs a descriptor as well.
    if (opensLeft > 0 && isOutput(path)) {
        if ((flags & O_PATH) != 0) {
            errno = errorNumber;
            return -1;
        }
        if (fails(opensLeft))
            return -1;
    }
    using Open = int (*)(int, const char*, int, ...);
    static const auto next = reinterpret_cast<Open>(::dlsym(RTLD_NEXT, "openat64"));
    return next(folder, path, flags, mode);
}

extern "C" int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) {
    if (looksLeft > 0 && *path == '\0' && isOpenOutput(folder) && fails(looksLeft))
        return -1;
    using Statx = int (*)(int, const char*, int, unsigned, struct statx*);
    static const auto next = reinterpret_cast<Statx>(::dlsym(RTLD_NEXT, "statx"));
    return next(folder, path, flags, mask, status);
}

Scarcity::Scarcity(Of what, int error, int attempts) {
    failed = 0;
    errorNumber = error;
    (what == Of::Open ? opensLeft : looksLeft) = attempts;
}

Scarcity::~Scarcity() {
    opensLeft = 0;
    looksLeft = 0;
}

int Scarcity::attempts() {
    return failed;
}
