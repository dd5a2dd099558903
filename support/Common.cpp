#include "support/Common.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "support/Clock.h"
#include "support/Folder.h"
#include "support/Log.h"
#include "support/UtcText.h"

namespace keywarden {

namespace {

constexpr std::uint64_t kLowerTimeLimit = 946555200;

/// `error` is the errno of the call, 0 after success; `action` names what was tried, as in "remove file 'x'".
/// A file that is not there is nothing to report.
int reported(int error, const std::string& action) {
    if (error != 0 && error != ENOENT)
        Log::write(SeverityError, "Failed to " + action + " : " + std::strerror(error));
    return error == 0 ? 0 : -1;
}

}  // namespace

bool Common::isDateOld() {
    // A time before the epoch reads as a huge number, and so counts as set.
    const auto now = static_cast<std::uint64_t>(Clock::now());
    if (now >= kLowerTimeLimit)
        return false;
    // The line feed that each of the two times brings along belongs to the text.
    Log::write(SeverityNotice, "Current system time '" + utcText(now) +
                                   "' is beyond the allowed lower limit of time '" +
                                   utcText(kLowerTimeLimit) + "'.");
    return true;
}

int Common::removeFile(const std::string& path) {
    return reported(removeAt(path), "remove file '" + path + "'");
}

int Common::removeDir(const std::string& path) {
    return reported(removeAt(path), "remove directory '" + path + "'");
}

int Common::renameFile(const std::string& from, const std::string& to) {
    const int error = std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
    return reported(error, "rename file '" + from + "' to '" + to + "'");
}

}  // namespace keywarden
