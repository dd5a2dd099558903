#pragma once

#include <sys/types.h>

#include <string>

namespace keywarden {

/// Writes a process id, in decimal and without a line end, mode 0664, owned by the user and the group of that
/// name. Throws FileWriteError when the file cannot be written, std::runtime_error when its rights cannot be
/// set.
void writePidFile(const std::string& path, pid_t pid, const std::string& user);

}  // namespace keywarden
