#include "ctl/Device.h"

#include <grp.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>

#include "channel/PipeFiles.h"
#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "ctl/Problem.h"
#include "support/Accounts.h"
#include "support/ConfigurationPath.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywardctl {

namespace {

using keywarden::DaemonConfiguration;

constexpr std::size_t kLargestPidFile = 64;

std::optional<pid_t> readPid(const std::string& path) {
    try {
        const std::string text = keywarden::readRegularFile(path, kLargestPidFile);
        pid_t pid = 0;
        const auto result = std::from_chars(text.data(), text.data() + text.size(), pid);
        if (result.ec == std::errc() && pid > 1)
            return pid;
    } catch (const std::exception&) {
        // No such file: no daemon.
    }
    return std::nullopt;
}

// An ended process that nobody has waited for still answers to kill(2). Without /proc it counts as alive.
bool hasEnded(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const std::size_t name = stat.rfind(") ");
    return name != std::string::npos && name + 2 < stat.size() &&
           (stat[name + 2] == 'Z' || stat[name + 2] == 'X');
}

std::string groupName(gid_t gid) {
    std::array<char, 16384> buffer{};
    struct group entry {};
    struct group* found = nullptr;
    if (::getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return std::to_string(gid);
    return found->gr_name;
}

}  // namespace

Device::Device() {
    try {
        const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
        servicesFolder_ = configuration.getServiceConfigDirectory();
        pidFile_ = configuration.getPidFile();
        lockFile_ = configuration.getLockFile();
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed,
                      std::string("the daemon's configuration '") + keywarden::daemonConfigurationPath() +
                          "' cannot be used: " + error.what() + " ('keywardctl check' tells more)");
    }
}

std::vector<std::string> Device::services() const {
    if (::access(servicesFolder_.c_str(), R_OK | X_OK) != 0)
        throw Problem(ExitCode::Failed,
                      fileProblem("the services' folder cannot be read,", servicesFolder_, errno));
    try {
        std::vector<std::string> found = keywarden::ServiceConfiguration::getServiceList();
        std::sort(found.begin(), found.end());
        return found;
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, error.what());
    }
}

void Device::require(const std::string& service) const {
    const std::vector<std::string> known = services();
    if (std::find(known.begin(), known.end(), service) != known.end())
        return;
    std::string list;
    for (const std::string& one : known)
        list += " " + one;
    throw Problem(ExitCode::Failed, "there is no service '" + service + "' in '" + servicesFolder_ +
                                        "'; there is:" + (list.empty() ? " none" : list));
}

std::string Device::pipesFolder(const std::string& service) {
    return DaemonConfiguration::getNamePipesDirectory() + "/" + service;
}

std::string Device::notificationFifo() {
    return DaemonConfiguration::getNamePipesDirectory() + "/" + keywarden::kNotificationFifo;
}

std::optional<pid_t> Device::daemon() const {
    const std::optional<pid_t> pid = readPid(pidFile_);
    if (!pid || !keywarden::Tools::fileExist(lockFile_) || (::kill(*pid, 0) != 0 && errno != EPERM) ||
        hasEnded(*pid))
        return std::nullopt;
    return pid;
}

void Device::throwNotRunning(const std::string& evidence) const {
    std::string text = "the daemon is not running";
    if (!evidence.empty())
        text += " (" + evidence + ")";
    const bool leftOver = !daemon() && keywarden::Tools::fileExist(lockFile_);
    if (leftOver)
        text += "; it left '" + lockFile_ + "' behind and will not start until that file is removed";
    throw Problem(ExitCode::DaemonNotRunning, text);
}

std::string membershipAdvice(gid_t group, const std::string& purpose) {
    const auto user = keywarden::findUser(::geteuid());
    const std::string name = user ? user->name : std::to_string(::geteuid());
    const std::string groupText = groupName(group);
    return "only members of the group '" + groupText + "' may " + purpose +
           ": add the user with 'usermod -aG " + groupText + " " + name + "' and log in again";
}

}  // namespace keywardctl
