#pragma once

#include <string>
#include <vector>

#include "support/Log.h"

namespace testsupport {

struct LogLine {
    keywarden::Severity severity;
    std::string text;
    bool operator==(const LogLine& other) const { return severity == other.severity && text == other.text; }
};

/// Takes the place of the system log in test programs (a link-time seam): every line is kept.
class CapturedLog {
  public:
    static void clear();
    /// There is no memory for the next lines, so many, that begin with this text: each ends in
    /// std::bad_alloc.
    static void failFor(const std::string& beginning, int lines = 1);
    [[nodiscard]] static std::vector<LogLine> lines();
    [[nodiscard]] static bool contains(keywarden::Severity severity, const std::string& text);
    /// How often the exact line was written.
    [[nodiscard]] static std::size_t count(keywarden::Severity severity, const std::string& text);
    /// Any severity.
    [[nodiscard]] static bool containsPart(const std::string& part);
    /// All lines, for the message of a failed assertion.
    [[nodiscard]] static std::string dump();
};

void PrintTo(const LogLine& line, std::ostream* out);

}  // namespace testsupport
