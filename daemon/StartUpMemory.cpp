// Memory that only the start needed.
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "daemon/StartUp.h"

namespace keywarden {

namespace {

bool isFromKernel(const dl_phdr_info& object) {
    return object.dlpi_name != nullptr && std::string_view(object.dlpi_name).substr(0, 10) == "linux-vdso";
}

// Of whole pages only, and only where the loader wrote nothing: such a page comes back from the file.
void giveBack(const dl_phdr_info& object, const ElfW(Phdr) & segment) {
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t begin = (object.dlpi_addr + segment.p_vaddr + page - 1) & ~(page - 1);
    const std::uintptr_t end = (object.dlpi_addr + segment.p_vaddr + segment.p_filesz) & ~(page - 1);
    if (begin < end)
        // Nothing depends on it.
        static_cast<void>(::madvise(reinterpret_cast<void*>(begin),  // NOLINT(performance-no-int-to-ptr)
                                    end - begin, MADV_DONTNEED));
}

int giveBackReadOnly(dl_phdr_info* object, std::size_t /*size*/, void* /*unused*/) {
    if (isFromKernel(*object))
        return 0;
    for (int index = 0; index < object->dlpi_phnum; ++index) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[index];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) == 0U)
            giveBack(*object, segment);
    }
    return 0;
}

}  // namespace

void giveBackStartUpMemory() {
    ::malloc_trim(0);
    // Symbol tables and code that nobody looks at again. On a device with little memory the kernel would take
    // them away one by one when it is short of it; this way they are gone while there is time.
    ::dl_iterate_phdr(giveBackReadOnly, nullptr);
}

}  // namespace keywarden
