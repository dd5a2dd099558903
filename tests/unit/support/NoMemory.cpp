#include "NoMemory.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local int untilFailure = 0;  // 0: none is wanted
thread_local int failuresLeft = 0;
thread_local bool met = false;

bool fails() {
    if (untilFailure == 0 || --untilFailure > 0)
        return false;
    met = true;
    untilFailure = --failuresLeft > 0 ? 1 : 0;
    return true;
}

}  // namespace

// In place of the library's, for this program.
void* operator new(std::size_t size) {
    void* const memory = fails() ? nullptr : std::malloc(size > 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

NoMemory::NoMemory(int first, int count) {
    met = false;
    failuresLeft = count;
    untilFailure = first;
}

NoMemory::~NoMemory() {
    untilFailure = 0;
}

bool NoMemory::wasMet() {
    return met;
}
