#include "ctl/check/NetworkAnswer.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>

#include "network/NetworkConfiguration.h"
#include "support/Accounts.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywardctl::check {

namespace {

constexpr const char* kNames = "names";
constexpr const char* kInterface = "interface ";

// For good; with root's rights the script must not be run.
bool becomeUser(const std::string& user) {
    if (::geteuid() != 0)
        return true;
    const auto uid = keywarden::userIdOf(user);
    const auto gid = keywarden::groupIdOf(user);
    const std::vector<gid_t> groups = keywarden::Tools::getGroups(user);
    return uid && gid && ::setgroups(groups.size(), groups.data()) == 0 && ::setregid(*gid, *gid) == 0 &&
           ::setreuid(*uid, *uid) == 0;
}

std::string ask(const std::set<std::string>& interfaces) {
    keywarden::NetworkConfiguration network;
    std::string answer = network.getDNS().empty() ? "" : std::string(kNames) + "\n";
    for (const std::string& name : interfaces) {
        if (network.isInterfaceExist(name))
            answer += kInterface + name + "\n";
    }
    return answer;
}

[[noreturn]] void runChild(int output, const std::string& user, const std::set<std::string>& interfaces) {
    int status = 1;
    try {
        ::setsid();
        if (becomeUser(user)) {
            const std::string answer = ask(interfaces);
            status =
                ::write(output, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size()) ? 0 : 1;
        }
    } catch (const std::exception&) {
        status = 1;
    }
    // What the program registered for its own end is not the child's to run.
    ::_exit(status);
}

std::string readAll(int input) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count = ::read(input, buffer.data(), buffer.size());
        if (count > 0)
            text.append(buffer.data(), static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            return text;
    }
}

NetworkAnswer parsed(const std::string& text) {
    const std::string prefix = kInterface;
    NetworkAnswer answer;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            answer.interfaces.insert(line.substr(prefix.size()));
        else if (line == kNames)
            answer.hasNames = true;
    }
    return answer;
}

}  // namespace

std::optional<NetworkAnswer> askNetwork(const std::string& user, const std::set<std::string>& interfaces) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return std::nullopt;
    const keywarden::UniqueFd input(ends[0]);
    keywarden::UniqueFd output(ends[1]);
    const pid_t child = ::fork();
    if (child == 0)
        runChild(output.get(), user, interfaces);
    output.reset();
    const std::string text = child < 0 ? std::string() : readAll(input.get());
    int status = 1;
    while (child > 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child < 0 || status != 0)
        return std::nullopt;
    return parsed(text);
}

}  // namespace keywardctl::check
