#include "tests/unit/x509memory/RefusedMemory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::uint64_t> requestsLeft{0};
std::atomic<bool> hasStruck{false};

bool refuses() {
    if (requestsLeft == 0 || --requestsLeft > 0) {
        return false;
    }
    hasStruck = true;
    return true;
}

}  // namespace

RefusedMemory::RefusedMemory(std::uint64_t request) {
    hasStruck = false;
    requestsLeft = request;
}

RefusedMemory::~RefusedMemory() {
    requestsLeft = 0;
}

bool RefusedMemory::struck() {
    return hasStruck;
}

// The linker has the calls of the program's own objects come here; libcrypto's requests go through one of
// them.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
void* __real_malloc(std::size_t size);
void* __real_realloc(void* memory, std::size_t size);

void* __wrap_malloc(std::size_t size) {
    return refuses() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* memory, std::size_t size) {
    return refuses() ? nullptr : __real_realloc(memory, size);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

void* operator new(std::size_t size) {
    void* const memory = refuses() ? nullptr : __real_malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
