#pragma once

#include <cstddef>
#include <string>

namespace keywarden {

/// What is read at most of a file that a person writes: configuration and request settings.
constexpr std::size_t kLargestConfigurationFile = std::size_t{1024} * 1024;

/// The bytes of a file. Whatever the path names, the call neither blocks nor reads without end: only a
/// regular file (or a link to one) of at most `limit` bytes is read. Throws std::runtime_error, which says
/// why.
[[nodiscard]] std::string readRegularFile(const std::string& path, std::size_t limit);

/// The same of an open regular file, from where it stands. The text is allocated once, at the file's size:
/// key material leaves no copy behind in memory. `path` is for the message. A read that fails throws
/// FileWriteError.
[[nodiscard]] std::string contentOf(int file, const std::string& path, std::size_t limit);

}  // namespace keywarden
