#pragma once

#include <string>

#include "support/FileWriter.h"

namespace keywarden {

/// The line files that list the certificates of a store. Every failure to open one, whichever it is, throws
/// std::runtime_error "Impossible to open the list file <path>.".

/// Without `truncate` the lines follow what the file holds.
void writeIndexFile(const std::string& path, const std::string& lines, bool truncate,
                    const FileAttributes& attributes);

/// Throws that exception.
[[noreturn]] void failToOpenIndex(const std::string& path);

[[nodiscard]] std::string readIndexFile(const std::string& path);

/// The text with every control character turned into a blank: it stays on its line, also for readers who end
/// lines elsewhere.
[[nodiscard]] std::string onOneLine(std::string text);

}  // namespace keywarden
