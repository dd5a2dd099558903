// What the files lead to: accounts, folders, the lock, callbacks, other services, the network.
#include <gmock/gmock.h>
#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "CheckedDevice.h"
#include "ctl/check/Checker.h"
#include "ctl/check/Identity.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

class CheckFiles : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_CHECKED_DEVICES(); }

    void useLibrary(const char* plugin) const {
        std::filesystem::copy_file(plugin, device.sandbox().path("plugin.so"));
        device.rights("plugin.so", 0644, 0, 0);
        device.setLine("services/web.conf", 3, "callbackLibrary ~/plugin.so");
    }

    CheckedDevice device;
};

const std::string kWeb = "~/services/web.conf";

/// A process with the daemon's name and these groups beside root's own, for as long as this lives.
class NamedProcess {
  public:
    explicit NamedProcess(const std::vector<gid_t>& groups) {
        std::array<int, 2> ready{};
        if (::pipe(ready.data()) != 0 || (pid_ = ::fork()) < 0)
            throw std::runtime_error("no process");
        if (pid_ == 0)
            pauseWith(groups, ready[1]);
        char byte = 0;
        ::close(ready[1]);
        const ssize_t count = ::read(ready[0], &byte, 1);
        ::close(ready[0]);
        if (count != 1)
            throw std::runtime_error("the process did not get its groups");
    }
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;
    ~NamedProcess() { end(); }

    [[nodiscard]] pid_t pid() const { return pid_; }

    /// Ends it, but leaves its number taken.
    void makeZombie() const {
        ::kill(pid_, SIGKILL);
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }

  private:
    [[noreturn]] static void pauseWith(const std::vector<gid_t>& groups, int ready) {
        ::prctl(PR_SET_NAME, "keywardd");
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::setgroups(groups.size(), groups.data()) != 0 || ::write(ready, "r", 1) != 1)
            ::_exit(1);
        for (;;)
            ::pause();
    }

    void end() const {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    pid_t pid_ = -1;
};

const std::vector<gid_t> kGroupsOfTheDaemon{4242, 4250, 4251, 4252};

/// A process id that no one has any more.
pid_t deadPid() {
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(0);
    ::waitpid(pid, nullptr, 0);
    return pid;
}

}  // namespace

TEST_F(CheckFiles, AServiceThatIsNoneIsTold) {
    EXPECT_THAT(device.check({"mail"}),
                ElementsAre("~/services/mail.conf: error: there is no service 'mail' [unknown-service]"));
    device.remove("services/web.conf");
    EXPECT_THAT(device.check(), ElementsAre("~/services: error: there is no service file [no-service]"));
}

TEST_F(CheckFiles, OnlyTheServicesAskedForAreLookedAt) {
    device.write("services/bad.conf", "server yes\n");
    EXPECT_THAT(device.check({"web"}), IsEmpty());
    EXPECT_FALSE(device.check().empty());
}

TEST_F(CheckFiles, FilesThatAreNoServicesAreTold) {
    for (const char* const name : {".conf", "a.b.conf", "web.conf.bak"})
        device.write(std::string("services/") + name, "");
    device.folder("services/d.conf", 0755, 0, 0);
    device.folder("services/notes", 0755, 0, 0);
    std::filesystem::create_symlink("web.conf", device.sandbox().path("services/link.conf"));
    const std::string ignored = ": warning: the daemon takes this for no service: ";
    const std::string naming = "its name is not '<service>.conf' with that point as its first [ignored-file]";
    EXPECT_THAT(device.check(),
                ElementsAre("~/services/.conf" + ignored + "it has no name before '.conf' [ignored-file]",
                            "~/services/a.b.conf" + ignored + naming,
                            "~/services/d.conf" + ignored + "it is no regular file [ignored-file]",
                            "~/services/link.conf" + ignored + "it is a link [ignored-file]",
                            "~/services/web.conf.bak" + ignored + naming));
}

TEST_F(CheckFiles, AServiceFileThatTheDaemonCannotReadIsTold) {
    device.rights("services/web.conf", 0600, 0, 0);
    EXPECT_THAT(device.check(), ElementsAre(kWeb + ": error: the daemon user 'keyuser' cannot read the file "
                                                   "[service-unreadable]"));
}

TEST_F(CheckFiles, AMissingDaemonUserIsTold) {
    device.setUsers("root:x:0:0::/:/bin/sh\n");
    EXPECT_THAT(device.check(),
                ElementsAre("~/config.daemon:5: error: the user 'keyuser' does not exist [no-daemon-user]"));
}

TEST_F(CheckFiles, AMissingGroupOfTheDaemonUsersNameIsTold) {
    device.setGroups("root:x:0:\nkwnotify:x:4250:keyuser\nkwmgmt:x:4251:keyuser\nkwkey:x:4252:keyuser\n");
    EXPECT_THAT(device.check(),
                ElementsAre("~/config.daemon:5: error: there is no group of the daemon user's name "
                            "'keyuser' [no-user-group]"));
}

TEST_F(CheckFiles, GroupsThatAreMissingOrLackTheDaemonUserAreTold) {
    device.setLine("config.daemon", 2, "notificationGroup nowhere");
    device.setLine("services/web.conf", 2, "keyGroup kwforeign");
    EXPECT_THAT(
        device.check(),
        ElementsAre("~/config.daemon:2: error: the group 'nowhere' of 'notificationGroup' does not exist "
                    "[no-group]",
                    kWeb + ":2: error: the daemon user 'keyuser' is not listed in the group 'kwforeign' of "
                           "'keyGroup' [not-member]"));
}

TEST_F(CheckFiles, TheCommandThatMendsAMembershipIsGiven) {
    device.setLine("services/web.conf", 1, "managmentGroup kwforeign");
    EXPECT_THAT(
        device.on([] { return reportText(keywardctl::check::checkDevice({})); }),
        testing::HasSubstr("\n    List it with 'usermod -a -G kwforeign keyuser' (BusyBox: 'addgroup keyuser "
                           "kwforeign'); as its primary group alone it does not count.\n"));
}

TEST_F(CheckFiles, AServiceWithoutGroupsIsTold) {
    device.write("services/web.conf",
                 "callbackScript ~/owner.sh\ncallbackTimeoutSecs 60\nserver yes\ncnfFile ~/web.cnf\n");
    EXPECT_THAT(device.check(), ElementsAre(kWeb + ": error: 'managmentGroup' is missing [missing-key]",
                                            kWeb + ": error: 'keyGroup' is missing [missing-key]"));
}

TEST_F(CheckFiles, AGroupThatTheDaemonGetsByMistakeIsTold) {
    device.setGroups(
        "root:x:0:\nkeyuser:x:4242:\nkwnotify:x:4250:keyuser\nkwmgmt:x:4251:keyuser\n"
        "kwkey:x:4252:keyuser\ndisk:x:6:keyuser2\n");
    EXPECT_THAT(
        device.check(),
        ElementsAre("/etc/group:6: warning: the daemon becomes a member of 'disk', although its user "
                    "'keyuser' is not listed there: the name is a part of another one [unmeant-group]"));
}

TEST_F(CheckFiles, FoldersThatAreMissingAreTold) {
    device.setLine("config.daemon", 1, "keywardDirectory ~/no/store");
    device.setLine("config.daemon", 7, "lockFile ~/gone/keywardd.lock");
    EXPECT_THAT(device.check(), ElementsAre("~/config.daemon:1: error: the folder '~/no' does not exist "
                                            "[folder-missing]",
                                            "~/config.daemon:7: error: the folder '~/gone' does not exist "
                                            "[folder-missing]"));
}

TEST_F(CheckFiles, FoldersThatTheDaemonUserCannotUseAreTold) {
    for (const char* const name : {"lock", "pid", "pipe"})
        device.folder(name, 0755, 0, 0);
    device.folder("closed", 0700, 0, 0);
    device.setLine("config.daemon", 1, "keywardDirectory ~/closed/store");
    device.setLine("config.daemon", 4, "namePipesDirectory ~/pipe/s");
    device.setLine("config.daemon", 7, "lockFile ~/lock/keywardd.lock");
    device.setLine("config.daemon", 8, "pidFile ~/pid/keywardd.pid");
    device.rights("services", 0750, 0, 0);
    const std::string may = "the daemon user 'keyuser' may not use the folder ";
    EXPECT_THAT(
        device.check(),
        ElementsAre(
            "~/config.daemon:1: error: " + may + "'~/closed': no certificate can be stored. [store-folder]",
            "~/config.daemon:3: error: " + may + "'~/services': it finds no services. [services-folder]",
            "~/config.daemon:4: warning: " + may +
                "'~/pipe': the folder of the pipes stays behind when it stops. [pipes-folder]",
            "~/config.daemon:7: error: " + may +
                "'~/lock': the lock stays behind when it stops, and it does not start again. [lock-folder]",
            "~/config.daemon:8: warning: " + may +
                "'~/pid': the pid file stays behind when it stops. [pid-folder]",
            kWeb + ": error: the daemon user 'keyuser' cannot read the file [service-unreadable]"));
}

TEST_F(CheckFiles, AFolderThatAGroupOfTheDaemonUserMayWriteIsFine) {
    device.rights("run", 0770, 0, CheckedDevice::kManagement);
    EXPECT_THAT(device.check(), IsEmpty());
    device.rights("run", 0077, CheckedDevice::kUser, 0);
    EXPECT_EQ(device.check().size(), 2U) << "an owner whom the mode refuses is refused";
}

TEST_F(CheckFiles, AMissingReadinessFolderIsTold) {
    device.setReadyFolder(false);
    EXPECT_THAT(device.check(),
                ElementsAre("/var/run/ready: error: the folder does not exist: nobody learns that "
                            "the daemon is ready. [ready-folder]"));
}

TEST_F(CheckFiles, WhatLiesInsideTheFolderOfThePipesIsTold) {
    device.setLine("config.daemon", 4, "namePipesDirectory ~/run");
    EXPECT_THAT(
        device.check(),
        IsSupersetOf({"~/config.daemon:7: error: 'lockFile' lies inside the folder of the pipes, which the "
                      "daemon removes with everything in it whenever it starts [inside-pipes]"}));
}

TEST_F(CheckFiles, ANetworkScriptThatCannotBeRunIsTold) {
    device.rights("scripts/network.sh", 0644, 0, 0);
    const std::string told =
        "~/config.daemon:6: error: '~/scripts/network.sh' cannot be run by the daemon user "
        "'keyuser': the daemon does not start [network-script]";
    EXPECT_THAT(device.check(), ElementsAre(told));
    device.remove("scripts/network.sh");
    EXPECT_THAT(device.check(), ElementsAre(told));
}

TEST_F(CheckFiles, AScriptThatEverybodyMayWriteIsTold) {
    device.rights("owner.sh", 0757, 0, 0);
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":3: warning: everybody may write '~/owner.sh', which the daemon "
                                   "runs [open-to-others]"));
}

TEST_F(CheckFiles, ALockThatNobodyHoldsIsTold) {
    device.write("run/keywardd.lock", "", 0640);
    const std::string stale = "~/run/keywardd.lock: error: the lock of a daemon that no longer runs (";
    EXPECT_THAT(device.check(), ElementsAre(stale + "there is no pid file): the next one does not start "
                                                    "[stale-lock]"));
    device.write("run/keywardd.pid", std::to_string(deadPid()));
    const std::string otherProcess = stale +
                                     "no daemon has the process id of the pid file): the next one does not "
                                     "start [stale-lock]";
    EXPECT_THAT(device.check(), ElementsAre(otherProcess));
    device.write("run/keywardd.pid", std::to_string(::getpid()));
    EXPECT_THAT(device.check(), ElementsAre(otherProcess)) << "the number has gone to another program";
    const NamedProcess daemon(kGroupsOfTheDaemon);
    device.write("run/keywardd.pid", std::to_string(daemon.pid()));
    EXPECT_THAT(device.check(), IsEmpty());
    daemon.makeZombie();
    EXPECT_THAT(device.check(), ElementsAre(otherProcess)) << "nobody has waited for it yet";
}

TEST_F(CheckFiles, AGroupThatTheRunningDaemonHasNotGotIsTold) {
    device.write("run/keywardd.lock", "", 0640);
    const NamedProcess daemon({4242, 4250, 4251});
    device.write("run/keywardd.pid", std::to_string(daemon.pid()));
    EXPECT_THAT(
        device.check(),
        ElementsAre(kWeb + ":2: error: the running daemon has not got the group 'kwkey' of 'keyGroup': "
                           "it took its groups when it started [group-not-taken]"));
}

TEST_F(CheckFiles, CallbacksThatStopTheServiceAreTold) {
    device.rights("owner.sh", 0644, 0, 0);
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":3: error: the daemon user 'keyuser' cannot run '~/owner.sh' "
                                   "[callback-not-executable]"));
    device.remove("owner.sh");
    EXPECT_THAT(device.check(), ElementsAre(kWeb + ":3: error: the file of 'callbackScript' does not exist: "
                                                   "'~/owner.sh' [callback-missing]"));
    device.setLine("services/web.conf", 3, "#");
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ": error: neither 'callbackScript' nor 'callbackLibrary' is set "
                                   "[no-callback]"));
}

TEST_F(CheckFiles, ACallbackScriptThatMayRunForEverIsTold) {
    device.setLine("services/web.conf", 7, "#");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kWeb + ":3: warning: 'callbackScript' has no time-out: a run that does not end holds "
                           "up the service, and the changes of network and time for all services that "
                           "come after it [no-callback-timeout]"));
    // The daemon does not watch over a library.
    useLibrary(PLUGIN_RECORDER);
    EXPECT_THAT(device.check(), IsEmpty());
}

TEST_F(CheckFiles, OfTwoCallbacksTheLibraryIsToldAsUnused) {
    device.append("services/web.conf", "callbackLibrary /nowhere.so");
    EXPECT_THAT(device.check(), ElementsAre(kWeb + ":8: warning: 'callbackLibrary' is never loaded beside "
                                                   "'callbackScript' [two-callbacks]"));
}

TEST_F(CheckFiles, AProperCallbackLibraryIsFine) {
    useLibrary(PLUGIN_RECORDER);
    EXPECT_THAT(device.check(), IsEmpty());
}

TEST_F(CheckFiles, ALibraryWithoutItsFunctionsIsTold) {
    useLibrary(PLUGIN_WITHOUT_DESTROY);
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":3: error: the library '~/plugin.so' has no function 'destroy' "
                                   "[library-symbols]"));
}

TEST_F(CheckFiles, ALibraryWithANullFunctionIsTold) {
    useLibrary(PLUGIN_NULL_CREATE);
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":3: error: the library '~/plugin.so' has no function 'create' "
                                   "[library-symbols]"));
}

TEST_F(CheckFiles, AFileThatIsNoLibraryIsTold) {
    device.write("plugin.so", "\177ELF\002\001\001");
    device.setLine("services/web.conf", 3, "callbackLibrary ~/plugin.so");
    const std::string told = kWeb +
                             ":3: error: '~/plugin.so' is no shared library of this machine "
                             "[library-unusable]";
    EXPECT_THAT(device.check(), ElementsAre(told));
    device.remove("plugin.so");
    EXPECT_THAT(device.check(), ElementsAre(kWeb + ":3: error: the file of 'callbackLibrary' does not exist: "
                                                   "'~/plugin.so' [callback-missing]"));
    ASSERT_EQ(::mkfifo(device.sandbox().path("plugin.so").c_str(), 0666), 0);
    EXPECT_THAT(device.check(), ElementsAre(told)) << "a fifo is not opened";
}

TEST_F(CheckFiles, ACutLibraryIsNotReadBeyondItsEnd) {
    useLibrary(PLUGIN_RECORDER);
    const std::string whole = testsupport::Sandbox::read(device.sandbox().path("plugin.so"));
    for (const std::size_t length : {whole.size() / 2, std::size_t{70}, std::size_t{20}}) {
        device.sandbox().write("plugin.so", whole.substr(0, length));
        EXPECT_EQ(device.check().size(), 1U) << length;
    }
}

TEST_F(CheckFiles, AuthoritiesThatCannotSignAreTold) {
    const std::string base =
        "managmentGroup kwmgmt\nkeyGroup kwkey\ncallbackScript ~/owner.sh\nserver yes\n"
        "callbackTimeoutSecs 60\n"
        "CASignedGeneration yes\ncnfFile ~/web.cnf\n";
    const auto with = [&](const std::string& line) {
        device.write("services/api.conf", base + line);
        return device.check({"api"});
    };
    const std::string api = "~/services/api.conf";
    EXPECT_THAT(with(""), ElementsAre(api + ": error: 'CAServiceId' is missing: nobody signs the certificate "
                                            "[no-authority]"));
    EXPECT_THAT(with("CAServiceId api\n"),
                ElementsAre(api + ":8: error: a service cannot be its own authority [own-authority]"));
    EXPECT_THAT(with("CAServiceId pki\n"),
                ElementsAre(api + ":8: error: there is no service 'pki' [unknown-authority]"));
    EXPECT_THAT(
        with("CAServiceId web\n"),
        ElementsAre(api + ":8: error: the certificate of the service 'web' is not a CA's [authority-no-ca]",
                    api + ":8: warning: the service 'web' may be started after this one, before it has a "
                          "certificate to sign with [authority-order]"));
    device.write("services/pki.conf", "server no\n");
    EXPECT_THAT(with("CAServiceId pki\n"),
                ElementsAre(api + ":8: error: the service 'pki' has no certificate of its "
                                  "own to sign with [authority-without-server]"));
    device.write("services/pki.conf", "server yes\ncnfFile ~/ca.cnf\n");
    device.write("ca.cnf",
                 "CN ca\nbasicConstraints critical,CA:TRUE\nkeyUsage critical,keyCertSign,cRLSign\n");
    EXPECT_THAT(with("CAServiceId pki\n"), IsEmpty());
}

TEST_F(CheckFiles, AnActiveCertificateOfAnAuthorityCountsMoreThanItsSettings) {
    device.storePair({});
    device.setLine("web.cnf", 8, "basicConstraints CA:TRUE");
    device.write("services/api.conf",
                 "managmentGroup kwmgmt\nkeyGroup kwkey\ncallbackScript ~/owner.sh\nserver yes\n"
                 "callbackTimeoutSecs 60\n"
                 "CASignedGeneration yes\ncnfFile ~/web.cnf\nCAServiceId web\n");
    EXPECT_THAT(device.check({"api"}), testing::Contains(testing::HasSubstr("[authority-no-ca]")));
}

TEST_F(CheckFiles, InterfacesThatAreNeverReadAreTold) {
    device.append("services/web.conf", "networkInterface.0 eth0");
    device.append("services/web.conf", "networkInterface.2 eth0");
    device.append("services/web.conf", "includeIPv4.1 yes");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kWeb + ":9: error: 'networkInterface.2' is never read: there is no 'networkInterface.1' "
                           "[interface-gap]",
                    kWeb + ":10: error: 'includeIPv4.1' is never read: there is no interface of this number "
                           "[stray-interface-key]"));
}

TEST_F(CheckFiles, InterfacesThatGiveNothingAreTold) {
    device.append("services/web.conf", "networkInterface.0 eth0");
    device.append("services/web.conf", "networkInterface.1 eth0");
    device.append("services/web.conf", "networkInterface.2 eth7");
    device.append("services/web.conf", "includeIPv6Auto.0 yes");
    EXPECT_THAT(
        device.check(),
        ElementsAre(kWeb + ":9: warning: 'eth0' is listed again; what stands for 'networkInterface.0' counts "
                           "[repeated-interface]",
                    kWeb + ":10: warning: the device has no interface 'eth7' [unknown-interface]",
                    kWeb + ":11: warning: 'includeIPv6Auto.0' has no effect without 'includeIPv6.0 yes' "
                           "[auto-without-family]"));
}

TEST_F(CheckFiles, ADeviceWithoutNamesIsTold) {
    device.write("scripts/network.sh", "#!/bin/sh\n", 0755);
    device.append("services/web.conf", "includeFQDN yes");
    EXPECT_THAT(device.check(),
                ElementsAre(kWeb + ":8: warning: the network script tells no name of the device "
                                   "[no-device-names]"));
}

TEST_F(CheckFiles, TheNetworkScriptRunsAsTheDaemonUserWithoutATerminal) {
    device.folder("out", 0777, 0, 0);
    device.write(
        "scripts/network.sh",
        "#!/bin/sh\n{ id -u; id -g; id -G; ps -o tty= -p $$; } >" + CheckedDevice::root() + "/out/who 2>&1\n",
        0755);
    device.append("services/web.conf", "includeFQDN yes");
    static_cast<void>(device.check());
    const std::string who = testsupport::Sandbox::read(device.sandbox().path("out/who"));
    EXPECT_THAT(who, testing::StartsWith("4242\n4242\n4242 4250 4251 4252\n"));
    EXPECT_THAT(who, testing::HasSubstr("\n?"));
}

TEST_F(CheckFiles, NothingOnTheDeviceIsChanged) {
    device.storePair({});
    const auto snapshot = [this] {
        std::string all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(device.sandbox().path())) {
            struct stat info {};
            ::lstat(entry.path().c_str(), &info);
            all += entry.path().string() + " " + std::to_string(info.st_mode) + " " +
                   std::to_string(info.st_ctim.tv_sec) + "." + std::to_string(info.st_ctim.tv_nsec) + "\n";
        }
        return all;
    };
    const std::string before = snapshot();
    EXPECT_THAT(device.check(), IsEmpty());
    EXPECT_EQ(snapshot(), before);
}

TEST_F(CheckFiles, WhoIsNotRootLearnsWhatWasNotLookedAt) {
    const std::string id = device.storePair({});
    device.askAsNobody();
    const std::string note = ": note: this could not be looked at: Permission denied [not-looked-at]";
    EXPECT_THAT(device.check(),
                ElementsAre("~/store/web/server/" + id + ".key" + note, "~/store/web/server" + note,
                            "~/store/web/server/.cacheddata" + note));
    device.rights("services", 0700, 0, 0);
    EXPECT_THAT(device.check(),
                testing::Contains("~/services: note: this could not be looked at: Std exception "
                                  "caught while getting service list: Failed to open '~/services': "
                                  "Permission denied [not-looked-at]"));
}

TEST(CheckIdentity, TheFolderOfAPathIsItsText) {
    using keywardctl::check::parentOf;
    EXPECT_EQ(parentOf("/a/b"), "/a");
    EXPECT_EQ(parentOf("/a//"), "/");
    EXPECT_EQ(parentOf("/a/b/"), "/a");
    EXPECT_EQ(parentOf("/"), "/");
    EXPECT_EQ(parentOf("a"), ".");
}
