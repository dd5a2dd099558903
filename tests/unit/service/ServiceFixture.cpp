#include "ServiceFixture.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "network/NetworkConfiguration.h"
#include "support/KeywardenDaemonException.h"
#include "testsupport/TestAccounts.h"
#include "testsupport/TestClock.h"

namespace servicetest {

using keywarden::Service;
using keywarden::UniqueFd;
using testsupport::CapturedLog;
using testsupport::Sandbox;
using testsupport::TestClock;
using testsupport::TestDevice;
using Clock = std::chrono::steady_clock;

// A mount point: the tests have mounts of their own.
Blocked::Blocked(std::string path) : path_(std::move(path)) {
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    if (::mount("tmpfs", path_.c_str(), "tmpfs", 0, nullptr) != 0)
        throw std::runtime_error("cannot mount at " + path_);
}

Blocked::~Blocked() {
    ::umount(path_.c_str());
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

Requester::Requester(const std::string& serviceId)
    : folder_(TestDevice::get().pipesDirectory() + "/" + serviceId),
      input_(folder_ + "/" + serviceId + ".in"),
      output_(folder_ + "/" + serviceId + ".out"),
      lock_(folder_ + "/" + serviceId + ".lock") {}

std::string Requester::ask(const std::string& line, std::chrono::milliseconds time) {
    makeOutput();
    openOutput();
    if (!send(line))
        return "nobody reads";
    std::string answer = receive(time);
    leave();
    return answer;
}

void Requester::makeOutput() const {
    ::unlink(output_.c_str());
    if (::mkfifo(output_.c_str(), 0600) != 0)
        throw std::runtime_error("cannot make " + output_);
}

void Requester::openOutput() {
    end_ = UniqueFd(::open(output_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

bool Requester::send(const std::string& line) const {
    UniqueFd input;
    // A service that has just been told to start opens it in a moment.
    const bool open = becomes(
        [&] {
            input = UniqueFd(::open(input_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            return static_cast<bool>(input);
        },
        std::chrono::seconds(5));
    if (!open)
        return false;
    ::fcntl(input.get(), F_SETFL, 0);
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = ::write(input.get(), line.data() + done, line.size() - done);
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

std::string Requester::receive(std::chrono::milliseconds time) {
    std::string answer;
    const auto end = Clock::now() + time;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd waiting{end_.get(), POLLIN, 0};
        if (left <= 0 || ::poll(&waiting, 1, static_cast<int>(left)) != 1)
            return answer.empty() ? "no answer" : "unfinished: " + answer;
        std::array<char, 4096> chunk{};
        const ssize_t count = ::read(end_.get(), chunk.data(), chunk.size());
        if (count == 0)
            return answer;
        if (count > 0)
            answer.append(chunk.data(), static_cast<std::size_t>(count));
    }
}

void Requester::leave() {
    end_.reset();
    ::unlink(output_.c_str());
}

bool becomes(const std::function<bool()>& condition, std::chrono::milliseconds time) {
    const auto end = Clock::now() + time;
    while (!condition()) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string request(const std::string& target, const std::string& command,
                    const std::vector<std::string>& arguments) {
    std::string line = "user\tservice\t" + target + "\t" + command;
    for (const std::string& argument : arguments)
        line += "\t" + argument;
    return line;
}

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const keywarden::KeywardenDaemonException& error) {
        return error.what();
    } catch (const std::runtime_error& error) {
        return std::string("runtime error: ") + error.what();
    } catch (const std::exception& error) {
        return std::string("exception: ") + error.what();
    }
    return "no exception";
}

std::string rightsOf(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return "missing";
    const group* const entry = ::getgrgid(info.st_gid);
    std::array<char, 8> mode{};
    static_cast<void>(std::snprintf(mode.data(), mode.size(), "%04o", info.st_mode & 07777U));
    return std::string(mode.data()) + " " + (entry != nullptr ? entry->gr_name : "?");
}

Lines linesStarting(const std::vector<std::string>& starts) {
    Lines found;
    for (const testsupport::LogLine& line : CapturedLog::lines())
        if (std::any_of(starts.begin(), starts.end(),
                        [&line](const std::string& start) { return line.text.rfind(start, 0) == 0; }))
            found.push_back(line);
    return found;
}

ServiceTest::ServiceTest() {
    static unsigned count = 0;
    id = "svc" + std::to_string(++count);
    const std::string record = sandbox().path("record");
    // "start" of service x is held while "x.start.hold" is there, and says so by "x.start.held".
    script = sandbox().write("owner.sh",
                             "#!/bin/sh\n"
                             "name=\"$1.$2\"\n"
                             "echo \"$*\" >> '" +
                                 record + ".'\"$1\"\n" + "cd '" + sandbox().path() +
                                 "'\n"
                                 "if [ -e \"$name.hold\" ]; then\n"
                                 "  : > \"$name.held\"\n"
                                 "  while [ -e \"$name.hold\" ]; do sleep 0.02; done\n"
                                 "  rm \"$name.held\"\n"
                                 "fi\n",
                             0755);
    cnfFile = sandbox().write("request.cnf",
                              "CONFIG_KEY PRIME256V1\n"
                              "CN unit.example\n"
                              "C US\nST NC\nL Millbrook\nO Example\nOU Unit\n"
                              "subjectKeyIdentifier hash\n"
                              "basicConstraints critical,CA:TRUE\n");
}

void ServiceTest::SetUp() {
    REQUIRE_TEST_ACCOUNTS();
    ::umask(0);
    static_cast<void>(::signal(SIGPIPE, SIG_IGN));
    TestClock::set(kNow);
    setNetwork("");
    CapturedLog::clear();
}

ServiceTest::~ServiceTest() {
    service_.reset();
    ownerThrowsNothing();
    TestClock::reset();
}

void ServiceTest::configure(const std::string& lines) const {
    configureOther(id, lines);
}

void ServiceTest::configureOther(const std::string& otherId, const std::string& lines) const {
    using testsupport::TestAccounts;
    const bool hasLibrary = lines.find("callbackLibrary") != std::string::npos;
    // The first occurrence of a key counts.
    TestDevice::get().writeService(otherId, lines + "\nmanagmentGroup " + TestAccounts::kManagementGroup +
                                                "\nkeyGroup " + TestAccounts::kKeyGroup + "\n" +
                                                (hasLibrary ? "" : "callbackScript " + script + "\n") +
                                                "cnfFile " + cnfFile + "\n");
}

void ServiceTest::configureThrowingOwner(const std::string& lines) const {
    // Set before there are threads that look at it.
    ::setenv("CALLBACK_THROWS", sandbox().path("throws").c_str(), 1);
    configure("callbackLibrary " PLUGIN_THROWING "\n" + lines);
}

void ServiceTest::ownerThrows(const std::string& event, const std::string& kind,
                              const std::string& text) const {
    sandbox().write("throws", event + " " + kind + " " + text);
}

void ServiceTest::ownerThrowsNothing() {
    std::filesystem::remove(sandbox().path("throws"));
}

Service& ServiceTest::start() {
    service_.reset();
    service_ = std::make_unique<Service>(id);
    return *service_;
}

Service& ServiceTest::run() {
    if (!service_)
        start();
    service_->initTimer();
    const std::string entering = "Entering the command line analyzer for service " + id;
    const std::size_t before = CapturedLog::count(keywarden::SeverityInfo, entering);
    service_->startHandler();
    if (!becomes([&] { return CapturedLog::count(keywarden::SeverityInfo, entering) > before; }))
        throw std::runtime_error("nobody reads the requests");
    return *service_;
}

std::vector<std::string> ServiceTest::events() const {
    std::vector<std::string> told;
    const std::string path = sandbox().path("record." + id);
    if (!Sandbox::exists(path))
        return told;
    std::istringstream lines(Sandbox::read(path));
    for (std::string line; std::getline(lines, line);)
        told.push_back(line.substr(id.size() + 1));
    std::filesystem::remove(path);
    return told;
}

void ServiceTest::hold(const std::string& event) const {
    sandbox().write(id + "." + event + ".hold", "");
}

void ServiceTest::release(const std::string& event) const {
    std::filesystem::remove(sandbox().path(id + "." + event + ".hold"));
}

bool ServiceTest::isHeld(const std::string& event) const {
    return becomes([&] { return Sandbox::exists(sandbox().path(id + "." + event + ".held")); });
}

void ServiceTest::setNetwork(const std::string& printed) {
    TestDevice::get().setNetwork(printed);
    keywarden::NetworkConfiguration::getInstance().reload();
}

std::string ServiceTest::pipes() const {
    return TestDevice::get().pipesDirectory() + "/" + id;
}

std::string ServiceTest::folder() const {
    return TestDevice::get().keywardDirectory() + "/" + id;
}

}  // namespace servicetest
