#include "x509/MemoryWatch.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cstdlib>
#include <new>

namespace keywarden {

namespace {

thread_local std::uint64_t refused = 0;

void* counted(void* memory) {
    if (memory == nullptr) {
        ++refused;
    }
    return memory;
}

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    return size == 0 ? nullptr : counted(std::malloc(size));
}

void* reallocate(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
    if (size == 0) {
        std::free(memory);
        return nullptr;
    }
    return counted(memory == nullptr ? std::malloc(size) : std::realloc(memory, size));
}

// Set at the start, before any thread.
bool areCounted = false;

bool queueTellsOfMemory() {
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE) {
            return true;
        }
    }
    return false;
}

}  // namespace

MemoryWatch::MemoryWatch() : refusedBefore_(refused) {
    ERR_clear_error();
}

// The queue says so too of a name with a NUL in it: it is asked only where requests are not counted.
void MemoryWatch::throwIfRefused() const {
    if (refused != refusedBefore_ || (!areCounted && queueTellsOfMemory())) {
        ERR_clear_error();
        throw std::bad_alloc();
    }
}

void MemoryWatch::countRequests() {
    areCounted = CRYPTO_set_mem_functions(allocate, reallocate, nullptr) == 1;
}

}  // namespace keywarden
