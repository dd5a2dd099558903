#include "ctl/check/RunningDaemon.h"

#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

#include "ctl/check/Subject.h"
#include "support/RegularFile.h"

namespace keywardctl::check {

namespace {

constexpr std::size_t kLargestPidFile = 64;
constexpr const char* kDaemonName = "keywardd";

/// The rest of a line of /proc/<process>/status; empty when there is none.
std::string statusOf(pid_t process, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, key.size() + 1, key + ":") == 0)
            return line.substr(key.size() + 1);
    return {};
}

// A number may have gone to another program since, and an ended process that nobody has waited for still
// answers to kill(2). Where there is no /proc, being there has to do.
bool isDaemon(pid_t process) {
    if (process <= 0 || (::kill(process, 0) != 0 && errno != EPERM))
        return false;
    std::istringstream state(statusOf(process, "State"));
    std::istringstream name(statusOf(process, "Name"));
    std::string word;
    if (state >> word && (word == "Z" || word == "X"))
        return false;
    return !(name >> word) || word.compare(0, std::string(kDaemonName).size(), kDaemonName) == 0;
}

/// 0 for a file that holds none.
pid_t pidIn(const std::string& path) {
    try {
        const long number =
            std::strtol(keywarden::readRegularFile(path, kLargestPidFile).c_str(), nullptr, 10);
        return number > 0 && number <= std::numeric_limits<pid_t>::max() ? static_cast<pid_t>(number) : 0;
    } catch (const std::runtime_error&) {
        return 0;
    }
}

}  // namespace

pid_t runningDaemon(const Subject& subject) {
    const pid_t process = pidIn(subject.daemon.values.text(DaemonKey::PidFile));
    return isDaemon(process) ? process : 0;
}

bool hasGroup(pid_t process, gid_t group) {
    const std::string groups = statusOf(process, "Gid") + " " + statusOf(process, "Groups");
    std::istringstream numbers(groups);
    bool isKnown = false;
    for (unsigned long number = 0; numbers >> number; isKnown = true)
        if (number == group)
            return true;
    return !isKnown;
}

}  // namespace keywardctl::check
