#include "DaemonFixture.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "daemon/DaemonState.h"
#include "network/NetworkConfiguration.h"
#include "service/Service.h"
#include "testsupport/Child.h"
#include "testsupport/TestClock.h"

namespace daemontest {

using testsupport::CapturedLog;
using testsupport::Sandbox;
using testsupport::TestAccounts;
using testsupport::TestClock;
using testsupport::TestDevice;

bool becomes(const std::function<bool()>& condition, std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string rightsOf(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return "missing";
    const passwd* const user = ::getpwuid(info.st_uid);
    const group* const group = ::getgrgid(info.st_gid);
    std::array<char, 8> mode{};
    static_cast<void>(std::snprintf(mode.data(), mode.size(), "%04o", info.st_mode & 07777U));
    return std::string(mode.data()) + " " + (user != nullptr ? user->pw_name : "?") + " " +
           (group != nullptr ? group->gr_name : "?");
}

Lines linesStarting(const Lines& all, const std::vector<std::string>& starts) {
    Lines found;
    for (const testsupport::LogLine& line : all)
        if (std::any_of(starts.begin(), starts.end(),
                        [&line](const std::string& start) { return line.text.rfind(start, 0) == 0; }))
            found.push_back(line);
    return found;
}

Lines linesStarting(const std::vector<std::string>& starts) {
    return linesStarting(CapturedLog::lines(), starts);
}

void DaemonTest::SetUp() {
    REQUIRE_TEST_ACCOUNTS();
    ::umask(0);
    static_cast<void>(::signal(SIGPIPE, SIG_IGN));
    TestClock::set(kNow);
    configureDaemon("root", TestAccounts::kManagementGroup);
    std::filesystem::create_directories(pipes());
    std::filesystem::create_directories(keyward());
    setNetwork("");
    CapturedLog::clear();
}

void DaemonTest::TearDown() {
    keywarden::services().clear();
    ::unsetenv("CALLBACK_THROWS");
    TestClock::reset();
    for (const std::string& path :
         {lockFile(), pidFile(), sandbox().path("events"), fifo(), sandbox().path("run")})
        std::filesystem::remove_all(path);
    for (const std::string& folder : {std::string("services"), std::string("keyward"), std::string("pipes")})
        if (Sandbox::exists(sandbox().path(folder)))
            for (const auto& entry : std::filesystem::directory_iterator(sandbox().path(folder)))
                std::filesystem::remove_all(entry.path());
}

void FreshDaemonTest::SetUp() {
    REQUIRE_TEST_ACCOUNTS();
    ::umask(0);
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    configureDaemon("root", TestAccounts::kManagementGroup);
}

void DaemonTest::configureDaemon(const std::string& user, const std::string& notificationGroup,
                                 const std::string& lines) {
    const TestDevice& device = TestDevice::get();
    sandbox().write("config.daemon", lines + "\nkeywardDirectory " + device.keywardDirectory() +
                                         "\nnotificationGroup " + notificationGroup +
                                         "\nserviceConfigDirectory " + device.servicesDirectory() +
                                         "\nnamePipesDirectory " + device.pipesDirectory() + "\ndaemonUser " +
                                         user + "\nscriptsDirectory " + device.scriptsDirectory() +
                                         "\nlockFile " + lockFile() + "\npidFile " + pidFile() + "\n");
}

void DaemonTest::configure(const std::string& id, const std::string& lines) const {
    const std::string script =
        sandbox().write("owner.sh", "#!/bin/sh\necho \"$*\" >> '" + sandbox().path("events") + "'\n", 0755);
    const std::string settings = sandbox().write("request.cnf", "CONFIG_KEY PRIME256V1\nCN unit.example\n");
    const bool hasLibrary = lines.find("callbackLibrary") != std::string::npos;
    TestDevice::get().writeService(id, lines + "\nmanagmentGroup " + TestAccounts::kManagementGroup +
                                           "\nkeyGroup " + TestAccounts::kKeyGroup + "\n" +
                                           (hasLibrary ? "" : "callbackScript " + script + "\n") +
                                           "cnfFile " + settings + "\n");
}

void DaemonTest::configureThrowing(const std::string& id, const std::string& lines) const {
    configure(id, "callbackLibrary " PLUGIN_THROWING "\n" + lines);
}

void DaemonTest::ownerThrows(const std::string& event, const std::string& kind, const std::string& text) {
    const std::string path = sandbox().write("throws", event + " " + kind + " " + text);
    ::setenv("CALLBACK_THROWS", path.c_str(), 1);
}

std::vector<std::string> DaemonTest::events() {
    std::vector<std::string> told;
    if (!Sandbox::exists(sandbox().path("events")))
        return told;
    std::istringstream lines(Sandbox::read(sandbox().path("events")));
    for (std::string line; std::getline(lines, line);)
        told.push_back(line);
    return told;
}

void DaemonTest::setNetwork(const std::string& printed) {
    TestDevice::get().setNetwork(printed);
    keywarden::NetworkConfiguration::getInstance().reload();
}

void useOwnRun(const std::string& folder) {
    std::filesystem::create_directories(folder + "/ready");
    if (!testsupport::enterPrivateMounts())
        throw std::runtime_error("no mounts of our own");
    testsupport::mountOver(folder, "/run");
}

void tellLogAtExit() {
    ::on_exit([](int, void*) { std::cerr << CapturedLog::dump() << std::flush; }, nullptr);
}

}  // namespace daemontest
