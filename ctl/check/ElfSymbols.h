#pragma once

#include <set>
#include <string>

namespace keywardctl::check {

struct LibraryLook {
    bool readable = false;          ///< the file could be read; otherwise `problem` says why
    bool isLibrary = false;         ///< a shared library for the machine that this program was built for
    bool hasSymbolTable = false;    ///< there are section headers that lead to one
    std::set<std::string> symbols;  ///< what it defines for others, as far as it is not null
    std::string problem;
};

/// Looks at a shared library without loading it: loading would run its code, and this runs as root.
[[nodiscard]] LibraryLook lookAtLibrary(const std::string& path);

}  // namespace keywardctl::check
