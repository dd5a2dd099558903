#include "fuzz/Fuzz.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace fuzz {

void require(bool holds, const char* promise) {
    if (!holds) {
        std::cerr << "Broken promise: " << promise << std::endl;
        std::abort();
    }
}

std::string fileWith(const std::string& content) {
    static const int memory = ::memfd_create("fuzz", 0);
    const bool written = ::ftruncate(memory, 0) == 0 &&
                         ::pwrite(memory, content.data(), content.size(), 0) == ssize_t(content.size());
    if (!written)
        std::abort();
    return "/proc/self/fd/" + std::to_string(memory);
}

}  // namespace fuzz
