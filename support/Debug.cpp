#include "support/Debug.h"

#include <iostream>

namespace keywarden {

bool gDebug = false;

void debugTrace(const std::string& message) {
    // One insertion a line, so that lines of several threads do not mix.
    if (gDebug)
        std::cerr << message + '\n' << std::flush;
}

}  // namespace keywarden
