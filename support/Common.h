#pragma once

#include <string>

namespace keywarden {

/// File operations that log their failure, and the guard against a clock that was never set.
class Common {
  public:
    /// True, after a NOTICE line, while the wall clock reads before 1999-12-30 12:00:00 UTC (946555200).
    static bool isDateOld();

    /// Each returns the C library's result (0 on success) and logs a failure at ERR, except ENOENT, which
    /// counts as nothing to do. None throws.
    static int removeFile(const std::string& path);
    static int removeDir(const std::string& path);
    static int renameFile(const std::string& from, const std::string& to);
};

}  // namespace keywarden
