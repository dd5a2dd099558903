// Memory that only the start needed.
#include <malloc.h>

#include "daemon/StartUp.h"
#include "support/ThreadStack.h"

namespace keywarden {

void giveBackStartUpMemory() {
    // Only what nobody has: pages of programs and libraries are the loader's, who may have written in any of
    // them (relocations in the text of an owner's library), and the system takes the others by itself.
    ::malloc_trim(0);
    ThreadStack::giveBackUnused();
}

}  // namespace keywarden
