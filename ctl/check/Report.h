#pragma once

#include <string>
#include <vector>

#include "ctl/check/Codes.h"

namespace keywardctl::check {

/// Where something was found: a file and a line counted from 1; line 0 is the file as a whole, an empty file
/// the device.
struct Place {
    std::string file;
    unsigned line = 0;
};

struct Finding {
    Severity severity;
    Place place;
    std::string code;
    std::string text;
    std::string advice;
};

/// What a check has found so far. Texts may quote what stands in files of anybody: everything that a terminal
/// could take for a command is written as "\xNN".
class Report {
  public:
    /// The same finding a second time (a settings file that two services share) is dropped.
    void add(Code code, const Place& place, const std::string& text, const std::string& advice);
    /// `reason` as of strerror.
    void addNotLookedAt(const std::string& file, const std::string& reason);

    /// Grouped by file in the order in which the files were first met, within a file by line.
    [[nodiscard]] std::vector<Finding> findings() const;
    [[nodiscard]] bool isEmpty() const { return findings_.empty(); }
    [[nodiscard]] bool hasErrorIn(const std::string& file) const;

  private:
    std::vector<Finding> findings_;
};

/// One line a finding, an indented line of advice below it, a summary at the end.
[[nodiscard]] std::string reportText(const Report& report);

/// {"version":1,"findings":[...]} on one line, with its line end; docs/check.md describes it.
[[nodiscard]] std::string reportJson(const Report& report);

/// The text with control characters, bytes that are no UTF-8 and characters outside the basic plane as
/// "\xNN".
[[nodiscard]] std::string printable(const std::string& text);

/// The text in single quotes.
[[nodiscard]] std::string quoted(const std::string& text);

}  // namespace keywardctl::check
