#include "FailingCalls.h"

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>

namespace {

std::optional<FailingCalls::Of> chosen;
int errorNumber = 0;
int firstCall = 0;
int lastCall = 0;
std::atomic<int> calls{0};
std::atomic<bool> used{false};

bool fails(FailingCalls::Of function) {
    if (chosen != function)
        return false;
    const int call = ++calls;
    if (call < firstCall || call > lastCall)
        return false;
    used = true;
    return true;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// These take the place of the C library's functions in this program, and call them.
extern "C" {

int getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size, passwd** found) {
    if (fails(FailingCalls::Of::UserLookUp)) {
        *found = nullptr;
        return errorNumber;
    }
    static const auto real = next<decltype(&getpwnam_r)>("getpwnam_r");
    return real(name, entry, buffer, size, found);
}

int getgrnam_r(const char* name, group* entry, char* buffer, std::size_t size, group** found) {
    if (fails(FailingCalls::Of::GroupLookUp)) {
        *found = nullptr;
        return errorNumber;
    }
    static const auto real = next<decltype(&getgrnam_r)>("getgrnam_r");
    return real(name, entry, buffer, size, found);
}

ssize_t read(int file, void* data, std::size_t size) {
    if (size == 1 && fails(FailingCalls::Of::ReadOfAByte)) {
        errno = errorNumber;
        return -1;
    }
    static const auto real = next<decltype(&read)>("read");
    return real(file, data, size);
}

ssize_t write(int file, const void* data, std::size_t size) {
    if (size == 1 && fails(FailingCalls::Of::WriteOfAByte)) {
        errno = errorNumber;
        return -1;
    }
    static const auto real = next<decltype(&write)>("write");
    return real(file, data, size);
}
}

FailingCalls::FailingCalls(Of function, int error, int first, int count) {
    errorNumber = error;
    firstCall = first;
    lastCall = first + count - 1;
    calls = 0;
    used = false;
    chosen = function;
}

FailingCalls::~FailingCalls() {
    chosen.reset();
}

bool FailingCalls::wereUsed() {
    return used;
}
