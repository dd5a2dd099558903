#pragma once

#include <string>

namespace keywardctl {

/// Writes a command's result to standard output. Throws Problem when it cannot be written whole.
void print(const std::string& text);

/// The same into a file: a regular one is replaced at one go (mode 0644; a link to it stays and its target is
/// replaced), so that no reader meets half of it; into anything else, such as a terminal, it is written. No
/// path, or "-", is standard output. Throws Problem.
void writeOutput(const std::string& path, const std::string& text);

/// A note for the user on standard error, behind the program's name.
void note(const std::string& text);

}  // namespace keywardctl
