#pragma once

#include <cstddef>
#include <string>

namespace keywarden {

/// The bytes of a file. Whatever the path names, the call neither blocks nor reads without end: only a
/// regular file (or a link to one) of at most `limit` bytes is read. Throws std::runtime_error, which says
/// why.
[[nodiscard]] std::string readRegularFile(const std::string& path, std::size_t limit);

}  // namespace keywarden
