// The steps of the start-up.
#include "daemon/StartUp.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <new>
#include <sstream>
#include <stdexcept>

#include "DaemonFixture.h"
#include "FailingCalls.h"
#include "daemon/DaemonState.h"
#include "daemon/Exit.h"
#include "daemon/Privileges.h"
#include "service/Service.h"
#include "support/Accounts.h"
#include "support/Debug.h"
#include "support/KeywardenDaemonException.h"
#include "support/StopRequest.h"
#include "testsupport/Child.h"
#include "testsupport/Traces.h"

namespace daemontest {

using keywarden::KeywardenDaemonException;
using keywarden::services;
using keywarden::SeverityEmergency;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testsupport::CapturedLog;
using testsupport::ExitedChild;
using testsupport::inChild;
using testsupport::runToExit;
using testsupport::Sandbox;
using testsupport::tracesOf;
using Words = std::vector<std::string>;

namespace {

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const KeywardenDaemonException& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("another exception: ") + error.what();
    }
    return "no exception";
}

void becomeNobodyForGood() {
    const auto nobody = keywarden::userIdOf("nobody");
    if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(*nobody, *nobody, *nobody) != 0)
        throw std::runtime_error("cannot become nobody");
}

// Root that may do all but these.
void giveUp(std::initializer_list<unsigned> capabilities) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (::syscall(SYS_capget, &header, data) != 0)
        throw std::runtime_error("no capabilities to give up");
    for (const unsigned capability : capabilities)
        data[0].effective &= ~(1U << capability);
    if (::syscall(SYS_capset, &header, data) != 0)
        throw std::runtime_error("capabilities cannot be given up");
}

}  // namespace

using Options = DaemonTest;

TEST_F(Options, OnlyTheSingleOptionSwitchesTheTracesOn) {
    const auto started = [](std::vector<std::string> arguments) {
        return testsupport::standardErrorOf([&arguments] {
            std::vector<char*> pointers;
            pointers.reserve(arguments.size() + 1);
            for (std::string& argument : arguments)
                pointers.push_back(argument.data());
            pointers.push_back(nullptr);
            keywarden::openLogAndReadOptions(static_cast<int>(arguments.size()), pointers.data());
            keywarden::gDebug = false;
        });
    };
    EXPECT_EQ(started({"keywardd", "-d"}), "Start the daemon\n");
    EXPECT_EQ(started({"keywardd"}), "");
    EXPECT_EQ(started({"keywardd", "-d", "-d"}), "");
    EXPECT_EQ(started({"keywardd", "-x"}), "");
    EXPECT_EQ(started({"keywardd", "-debug"}), "");
}

using Process = DaemonTest;

TEST_F(Process, StopsWaitAndBrokenPipesAreErrors) {
    EXPECT_EQ(inChild([] {
                  static_cast<void>(::signal(SIGPIPE, SIG_DFL));
                  keywarden::prepareProcess();
                  sigset_t blocked;
                  ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
                  std::string state;
                  for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGHUP})
                      state += ::sigismember(&blocked, signal) == 1 ? "blocked " : "free ";
                  struct sigaction action {};
                  for (const int signal : {SIGPIPE, SIGHUP}) {
                      ::sigaction(signal, nullptr, &action);
                      state += action.sa_handler == SIG_IGN ? "ignored " : "deadly ";
                  }
                  return state;
              }),
              "blocked blocked blocked free ignored ignored ");
}

TEST_F(Process, StandardDescriptorsAreTaken) {
    EXPECT_EQ(inChild([]() -> std::string {
                  for (const int descriptor : {0, 1, 2})
                      ::close(descriptor);
                  keywarden::prepareProcess();
                  struct stat null {};
                  ::stat("/dev/null", &null);
                  for (const int descriptor : {0, 1, 2}) {
                      struct stat info {};
                      if (::fstat(descriptor, &info) != 0 || info.st_rdev != null.st_rdev)
                          return "not taken: " + std::to_string(descriptor);
                  }
                  return "taken";
              }),
              "taken");
}

TEST_F(Process, NoDescriptorIsLeftOver) {
    EXPECT_EQ(inChild([] {
                  const int before = ::dup(0);
                  ::close(before);
                  keywarden::prepareProcess();
                  const int after = ::dup(0);
                  return std::to_string(after - before);
              }),
              "0");
}

TEST_F(Process, WorkingFolderIsTheRoot) {
    EXPECT_EQ(inChild([this] {
                  static_cast<void>(!::chdir(sandbox().path().c_str()));
                  keywarden::prepareProcess();
                  return std::filesystem::current_path().string();
              }),
              "/");
}

using InitCheckDeathTest = FreshDaemonTest;

TEST_F(InitCheckDeathTest, MissingConfigurationIsFatal) {
    EXPECT_EXIT(
        {
            std::filesystem::remove(sandbox().path("config.daemon"));
            tellLogAtExit();
            keywarden::initCheck();
        },
        testing::ExitedWithCode(12),
        AllOf(HasSubstr("0 Stopping with the code 12 due to Std exception caught while loading the daemon "
                        "configuration file. Error: Failed to open configuration file : "),
              HasSubstr("config.daemon...\n")));
}

TEST_F(InitCheckDeathTest, UnknownUserIsFatal) {
    EXPECT_EXIT(
        {
            configureDaemon("no-such-user", "kwmanage");
            tellLogAtExit();
            keywarden::initCheck();
        },
        testing::ExitedWithCode(12),
        HasSubstr("0 Stopping with the code 12 due to The user: no-such-user doesn't exist...\n"));
}

TEST_F(InitCheckDeathTest, UnknownGroupIsFatal) {
    EXPECT_EXIT(
        {
            configureDaemon("root", "no-such-group");
            tellLogAtExit();
            keywarden::initCheck();
        },
        testing::ExitedWithCode(12),
        HasSubstr(
            "0 Stopping with the code 12 due to The group for notifier: no-such-group doesn't exist...\n"));
}

TEST_F(InitCheckDeathTest, UserOutsideTheGroupIsFatalAndNoFileIsTouched) {
    EXPECT_EXIT(
        {
            configureDaemon("root", "kwforeign");
            sandbox().write("keywardd.lock", "");
            sandbox().write("keywardd.pid", "4711");
            ::on_exit(
                [](int, void*) {
                    if (Sandbox::exists(lockFile()) && Sandbox::exists(pidFile()))
                        ::dprintf(STDERR_FILENO, "both there\n");
                },
                nullptr);
            tellLogAtExit();
            keywarden::initCheck();
        },
        testing::ExitedWithCode(12),
        AllOf(HasSubstr("0 Stopping with the code 12 due to The user: root is not member of the group "
                        "kwforeign...\n"),
              HasSubstr("both there\n")));
}

TEST_F(InitCheckDeathTest, GoodConfigurationGoesOn) {
    EXPECT_EXIT(
        {
            keywarden::initCheck();
            ::dprintf(STDERR_FILENO, "goes on\n");
            std::exit(3);
        },
        testing::ExitedWithCode(3), HasSubstr("goes on\n"));
}

class Lock : public DaemonTest {
  protected:
    [[nodiscard]] static std::string running() {
        return "Stopping with the code 13 due to keywardd already running...";
    }
};

TEST_F(Lock, IsMadeWithItsRights) {
    EXPECT_EQ(tracesOf([] { keywarden::checkLock(); }), "Get the lock...\nGet the lock... Done.\n");
    EXPECT_EQ(rightsOf(lockFile()), "0640 root root");
    EXPECT_EQ(Sandbox::read(lockFile()), "");
}

TEST_F(Lock, ThatIsThereMeansARunningInstance) {
    sandbox().write("keywardd.lock", "");
    sandbox().write("keywardd.pid", "4711");
    const ExitedChild end = runToExit([] { keywarden::lockInstance(); });
    EXPECT_TRUE(end.exitedWith(13));
    EXPECT_EQ(end.log, (Lines{{SeverityEmergency, running()}}));
    EXPECT_THAT(end.standardError,
                HasSubstr("Get the lock...\nGet the lock... Failed. Lock file already present.\n"));
    EXPECT_TRUE(Sandbox::exists(lockFile()));
    EXPECT_EQ(Sandbox::read(pidFile()), "4711");
}

TEST_F(Lock, LinkInItsPlaceIsNotFollowed) {
    std::filesystem::create_symlink(sandbox().path("planted"), lockFile());
    const ExitedChild end = runToExit([] { keywarden::lockInstance(); });
    EXPECT_TRUE(end.exitedWith(13));
    EXPECT_FALSE(Sandbox::exists(sandbox().path("planted")));
}

TEST_F(Lock, OnlyOneOfManyInstancesGetsIt) {
    std::string ends;
    for (int i = 0; i < 4; ++i)
        ends += runToExit([] { keywarden::lockInstance(); }).exitedWith(0) ? "got it " : "refused ";
    EXPECT_EQ(ends, "got it refused refused refused ");
}

TEST_F(Lock, FolderThatMayNotBeWrittenIsFatal) {
    const ExitedChild end = runToExit([] {
        becomeNobodyForGood();
        keywarden::lockInstance();
    });
    const std::string failure = "Failed to open lock file '" + lockFile() + "', err: Permission denied";
    EXPECT_TRUE(end.exitedWith(12));
    EXPECT_EQ(end.log, (Lines{
                           {SeverityError, failure},
                           {SeverityEmergency, "Stopping with the code 12 due to " + failure + "..."},
                       }));
}

TEST_F(Lock, FileThatCannotBeGivenAwayIsFatal) {
    ASSERT_EQ(::chmod(sandbox().path().c_str(), 0777), 0);
    const ExitedChild end = runToExit([] {
        becomeNobodyForGood();
        keywarden::lockInstance();
    });
    ::chmod(sandbox().path().c_str(), 0755);
    const std::string failure = "Impossible to change the user for " + lockFile();
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_EQ(end.log, (Lines{
                           {SeverityError, "Runtime error caught while checking lock:" + failure},
                           {SeverityEmergency, "Stopping with the code 12 due to " + failure + "..."},
                       }));
    EXPECT_FALSE(Sandbox::exists(lockFile()));
}

class Directories : public DaemonTest {};

TEST_F(Directories, PipesAreEmptiedAndBothAreMade) {
    sandbox().write("pipes/old/old.in", "");
    sandbox().write("pipes/notification.signal", "");
    std::filesystem::remove_all(keyward());
    keywarden::prepareDirectories();
    EXPECT_TRUE(std::filesystem::is_empty(pipes()));
    EXPECT_EQ(rightsOf(pipes()), "0711 root root");
    EXPECT_EQ(rightsOf(keyward()), "0755 root root");
}

TEST_F(Directories, MissingPipesAreNoFailure) {
    std::filesystem::remove_all(pipes());
    EXPECT_EQ(testsupport::standardErrorOf([] { keywarden::prepareDirectories(); }), "");
    EXPECT_EQ(rightsOf(pipes()), "0711 root root");
}

TEST_F(Directories, ContentOfTheKeywardFolderStays) {
    const std::string kept = sandbox().write("keyward/web/server/active", "id");
    keywarden::prepareDirectories();
    EXPECT_EQ(Sandbox::read(kept), "id");
}

TEST_F(Directories, FailureIsFatal) {
    ::chmod(keyward().c_str(), 0775);
    const ExitedChild end = runToExit([] {
        becomeNobodyForGood();
        keywarden::prepareDirectories();
    });
    const std::string failure = "Std exception caught while removing or creating directory:";
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    ASSERT_EQ(end.log.size(), 2U) << end.dump();
    EXPECT_EQ(end.log[0].severity, SeverityError);
    EXPECT_EQ(
        end.log[0].text,
        failure +
            "Caught runtime exception. Faied to change the mode. Reason: Impossible to change mode for " +
            keyward());
    EXPECT_EQ(end.log[1], (testsupport::LogLine{SeverityEmergency, "Stopping with the code 12 due to " +
                                                                       end.log[0].text + "..."}));
    ::chmod(keyward().c_str(), 0755);
}

TEST_F(Directories, ArchitectureGetsItsFinalModes) {
    keywarden::prepareDirectories();
    EXPECT_EQ(tracesOf([] { keywarden::createFileArchitecture(); }), "Create the file architecture\n");
    EXPECT_EQ(rightsOf(pipes()), "0711 root root");
    EXPECT_EQ(rightsOf(keyward()), "0711 root root");
}

class Guard : public DaemonTest {
  protected:
    static void expectFatal(const std::function<void()>& step, const std::string& logged,
                            const std::string& reason) {
        sandbox().write("keywardd.lock", "");
        sandbox().write("keywardd.pid", "");
        const ExitedChild end = runToExit([&step] { keywarden::runGuarded(step); });
        EXPECT_TRUE(end.exitedWith(12));
        EXPECT_EQ(end.log, (Lines{
                               {SeverityError, logged},
                               {SeverityEmergency, "Stopping with the code 12" +
                                                       (reason.empty() ? "" : " due to " + reason) + "..."},
                           }));
        EXPECT_FALSE(Sandbox::exists(lockFile()));
        EXPECT_FALSE(Sandbox::exists(pidFile()));
    }
};

TEST_F(Guard, EveryKindOfFailureHasItsText) {
    expectFatal([] { throw KeywardenDaemonException("No service loaded!"); },
                "Daemon Exception occured during daemon setup: No service loaded!", "No service loaded!");
    expectFatal([] { throw std::logic_error("odd"); }, "Std exception occured while setup of daemon: odd",
                "odd");
    expectFatal([] { throw std::runtime_error(""); },
                "Std exception occured while setup of daemon: Unknown error", "");
    expectFatal([] { throw 42; }, "Unknown exception is occured during daemon setup.", "");
}

TEST_F(Guard, StepThatSucceedsReturns) {
    bool ran = false;
    keywarden::runGuarded([&ran] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST_F(Guard, WhatEscapesItEndsTheProcessAndLeavesTheFilesOfOthers) {
    sandbox().write("keywardd.lock", "");
    sandbox().write("keywardd.pid", "4711");
    const ExitedChild end = runToExit([] { keywarden::runToTheEnd([] { throw std::bad_alloc(); }); });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_EQ(end.log, (Lines{{SeverityEmergency, "Stopping with the code 12 due to std::bad_alloc..."}}));
    EXPECT_TRUE(Sandbox::exists(lockFile()));
    EXPECT_EQ(Sandbox::read(pidFile()), "4711");
}

TEST_F(Guard, WhatEscapesItWithTheLockTakesTheFilesAway) {
    const ExitedChild end = runToExit([] {
        keywarden::runToTheEnd([] {
            keywarden::lockInstance();
            throw std::bad_alloc();
        });
    });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_FALSE(Sandbox::exists(lockFile()));
}

TEST_F(Guard, LastLineWithoutMemoryIsStillTheEnd) {
    sandbox().write("keywardd.lock", "");
    const ExitedChild end = runToExit([] {
        CapturedLog::failFor("Stopping with the code");
        keywarden::exitDaemon(12, "a reason", true);
    });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_FALSE(Sandbox::exists(lockFile()));
    EXPECT_TRUE(end.logged(SeverityError, "The last line of the daemon failed: std::bad_alloc"));
}

class Identity : public DaemonTest {};

TEST_F(Identity, PidFileHoldsTheProcessAndHasItsRights) {
    sandbox().write("keywardd.pid", "an older and longer text");
    const std::string pid = inChild([] {
        keywarden::initDaemon();
        return std::to_string(::getpid());
    });
    EXPECT_EQ(Sandbox::read(pidFile()), pid);
    EXPECT_EQ(rightsOf(pidFile()), "0664 root root");
}

TEST_F(Identity, PidFileThatCannotBeOpenedFails) {
    const std::string failure = "Failed to open pid file '" + pidFile() + "', err: Is a directory";
    sandbox().write("keywardd.pid/inside", "");
    EXPECT_EQ(failureOf([] { keywarden::initDaemon(); }), failure);
    EXPECT_TRUE(CapturedLog::contains(SeverityError, failure)) << CapturedLog::dump();
}

TEST_F(Identity, ProcessThatIsNotRootStaysWhoItIs) {
    ASSERT_EQ(::chmod(sandbox().path().c_str(), 0777), 0);
    const ExitedChild end = runToExit([] {
        becomeNobodyForGood();
        // The pid file cannot be given to root by it.
        std::cerr << failureOf([] { keywarden::initDaemon(); });
    });
    ::chmod(sandbox().path().c_str(), 0755);
    EXPECT_THAT(end.standardError, AllOf(HasSubstr("Impossible to change the user for " + pidFile()),
                                         Not(HasSubstr("Change the user"))));
}

class IdentityDeathTest : public FreshDaemonTest {
  protected:
    static std::string identity() {
        std::string text = std::to_string(::getuid()) + " " + std::to_string(::geteuid()) + " " +
                           std::to_string(::getgid()) + " " + std::to_string(::getegid()) + " groups";
        std::vector<gid_t> groups(64);
        const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
        groups.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        for (const gid_t group : groups)
            text += " " + std::to_string(group);
        return text + "\n";
    }
};

TEST_F(IdentityDeathTest, RootBecomesTheDaemonUserWithItsGroups) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            keywarden::gDebug = true;
            keywarden::initDaemon();
            std::cerr << identity();
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        AllOf(HasSubstr("Change the user... \n"),
              HasSubstr(
                  " -> Set Groups done.\n -> Set main group done.\n -> Set user done.\nChange the user... "
                  "done.\n1 1 1 1 groups 1 60102 60103\n")));
}

TEST_F(IdentityDeathTest, EveryStepThatFailsIsLoggedAndNoneIsFatal) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            giveUp({CAP_SETUID, CAP_SETGID});
            keywarden::gDebug = true;
            CapturedLog::clear();
            keywarden::initDaemon();
            std::cerr << "log:\n" << CapturedLog::dump() << "end\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        AllOf(HasSubstr("Change the user... \n"), HasSubstr("Change the user... done.\n"),
              Not(HasSubstr(" -> Set")),
              HasSubstr("log:\n"
                        "3 Failed to set groups ID, err: Operation not permitted\n"
                        "3 Failed to set group ID, err: Operation not permitted\n"
                        "3 Failed to set user ID, err: Operation not permitted\n"
                        "3 The daemon still runs as root, not as the user daemon.\n"
                        "end\n")));
}

TEST_F(IdentityDeathTest, LookUpThatFailsOnceLeavesNothingOfRoot) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            for (const auto function : {FailingCalls::Of::UserLookUp, FailingCalls::Of::GroupLookUp}) {
                bool used = true;
                for (int number = 1; used; ++number) {
                    used = inChild([function, number] {
                               const FailingCalls failing(function, EIO, number, 1);
                               const std::string failure = failureOf([] { keywarden::initDaemon(); });
                               if (FailingCalls::wereUsed() && identity() != "1 1 1 1 groups 1 60102 60103\n")
                                   std::cerr << number << ": " << failure << " " << identity();
                               return std::string(FailingCalls::wereUsed() ? "used" : "");
                           }) == "used";
                }
            }
            std::cerr << "end\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0), testing::MatchesRegex("end\n"));
}

TEST_F(IdentityDeathTest, UserWhoIsNotFoundAnyMoreIsFatal) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            const FailingCalls failing(FailingCalls::Of::UserLookUp, EIO, 2, FailingCalls::kAll);
            std::cerr << failureOf([] { keywarden::initDaemon(); }) << "\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        HasSubstr("The user: daemon is not found any more: the daemon does not go on as root\n"));
}

TEST_F(IdentityDeathTest, NothingIsDoneAsRootForAUserWhoIsNotFound) {
    EXPECT_EXIT(
        {
            const FailingCalls failing(FailingCalls::Of::UserLookUp, EIO, 1, FailingCalls::kAll);
            std::cerr << failureOf([] { const keywarden::ActingAs user("daemon"); }) << "\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        HasSubstr("The user: daemon is not found any more: the daemon does not go on as root\n"));
}

TEST_F(IdentityDeathTest, PidFileThatCannotBeGivenItsModeFails) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            // The file belongs to the daemon user by then.
            giveUp({CAP_FOWNER});
            CapturedLog::clear();
            std::cerr << "failure: " << failureOf([] { keywarden::initDaemon(); }) << "\nlog:\n"
                      << CapturedLog::dump() << "end\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        AllOf(HasSubstr("failure: Failed to assign required permissions to file: /"),
              HasSubstr("/keywardd.pid\nlog:\n3 Error to assign required permissions to: /"),
              HasSubstr("/keywardd.pid\nend\n")));
}

TEST_F(IdentityDeathTest, PidFileBelongsToTheDaemonUser) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            keywarden::initDaemon();
            std::cerr << rightsOf(pidFile()) << "\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0), HasSubstr("0664 daemon daemon\n"));
}

class PrivilegesDeathTest : public FreshDaemonTest {
  protected:
    /// The lines of /proc/self/status about what the process may, and whether it may be dumped.
    static std::string privileges() {
        std::ifstream status("/proc/self/status");
        std::string text;
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("Cap", 0) == 0 || line.rfind("NoNewPrivs", 0) == 0)
                text += line + "\n";
        }
        return text + "dumpable " + std::to_string(::prctl(PR_GET_DUMPABLE)) + "\n";
    }
};

TEST_F(PrivilegesDeathTest, NothingIsLeftOfRoot) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            CapturedLog::clear();
            keywarden::limitCapabilities();
            keywarden::initDaemon();
            keywarden::giveUpPrivileges();
            std::cerr << privileges() << "log:\n" << CapturedLog::dump() << "end\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        HasSubstr("CapInh:\t0000000000000000\nCapPrm:\t0000000000000000\nCapEff:\t0000000000000000\n"
                  "CapBnd:\t0000000000000000\nCapAmb:\t0000000000000000\nNoNewPrivs:\t1\ndumpable 0\n"
                  "log:\nend\n"));
}

TEST_F(PrivilegesDeathTest, BoundingSetThatMayNotBeEmptiedIsLoggedAndNotFatal) {
    EXPECT_EXIT(
        {
            configureDaemon("daemon", "kwkeys");
            giveUp({CAP_SETPCAP});
            CapturedLog::clear();
            keywarden::limitCapabilities();
            keywarden::initDaemon();
            keywarden::giveUpPrivileges();
            std::cerr << privileges() << "log:\n" << CapturedLog::dump() << "end\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        AllOf(HasSubstr("CapEff:\t0000000000000000\n"), Not(HasSubstr("CapBnd:\t0000000000000000\n")),
              HasSubstr("NoNewPrivs:\t1\ndumpable 0\nlog:\n"
                        "3 Failed to empty the bounding set of capabilities, err: Operation not permitted\n"
                        "end\n")));
}

TEST_F(PrivilegesDeathTest, RootAsTheDaemonUserKeepsItsCapabilities) {
    EXPECT_EXIT(
        {
            const std::string before = privileges();
            CapturedLog::clear();
            keywarden::limitCapabilities();
            keywarden::giveUpPrivileges();
            const std::string after = privileges();
            const auto capabilities = [](const std::string& all) { return all.substr(0, all.find("NoNew")); };
            std::cerr << (capabilities(before) == capabilities(after) ? "kept" : before + after) << "\n"
                      << after << "log:\n"
                      << CapturedLog::dump() << "end\n";
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        AllOf(HasSubstr("kept\n"), HasSubstr("NoNewPrivs:\t1\ndumpable 0\nlog:\nend\n")));
}

class Script : public DaemonTest {};

TEST_F(Script, ThatMayBeRunGoesOn) {
    EXPECT_TRUE(runToExit([] { keywarden::checkNetworkScript(); }).exitedWith(0));
}

TEST_F(Script, ThatMayNotBeRunIsFatal) {
    const std::string script = sandbox().path("scripts/network.sh");
    ::chmod(script.c_str(), 0644);
    const ExitedChild end = runToExit([] { keywarden::checkNetworkScript(); });
    ::chmod(script.c_str(), 0755);
    EXPECT_TRUE(end.exitedWith(12));
    EXPECT_EQ(end.log, (Lines{{SeverityEmergency, "Stopping with the code 12 due to The script " + script +
                                                      " cannot be run with the daemon user root. ..."}}));
}

TEST(PkiFirst, KeepsTheOrderWithinBothParts) {
    EXPECT_EQ(keywarden::pkiFirst({"web", "pkica", "mqtt"}), (Words{"pkica", "web", "mqtt"}));
    EXPECT_EQ(keywarden::pkiFirst({"b", "pki2", "a", "pki1", "pki"}),
              (Words{"pki2", "pki1", "pki", "b", "a"}));
    EXPECT_EQ(keywarden::pkiFirst({"pk", "PKI", "", "apki", "pki"}), (Words{"pki", "pk", "PKI", "", "apki"}));
    EXPECT_EQ(keywarden::pkiFirst({}), Words{});
}

class Services : public DaemonTest {};

TEST_F(Services, NamesAreThoseOfTheFilesWithPkiFirst) {
    configure("web");
    configure("pkica");
    const Words names = keywarden::orderedServiceNames();
    EXPECT_EQ(names, (Words{"pkica", "web"}));
}

TEST_F(Services, AreConstructedInOrder) {
    configure("beta");
    configure("alpha");
    keywarden::constructServices({"beta", "alpha"});
    ASSERT_EQ(services().size(), 2U);
    EXPECT_EQ(services()[0]->getServiceId(), "beta");
    EXPECT_EQ(services()[1]->getServiceId(), "alpha");
    EXPECT_EQ(events(), (Words{"beta start", "alpha start"}));
}

TEST_F(Services, ThatFailAreLoggedAndSkipped) {
    configure("good");
    configure("bad", "managmentGroup no-such-group");
    keywarden::constructServices({"bad", "missing", "good"});
    ASSERT_EQ(services().size(), 1U);
    EXPECT_EQ(services()[0]->getServiceId(), "good");
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError,
        "Error during starting bad: Std exception during loading service object for service-bad: The group "
        "'no-such-group' of the service 'bad' doesn't exist"))
        << CapturedLog::dump();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError, "Error during starting missing: No configuration file for the service missing"));
}

TEST_F(Services, NoneLeftIsAFailure) {
    configure("bad", "managmentGroup no-such-group");
    EXPECT_EQ(failureOf([] { keywarden::constructServices({"bad"}); }), "No service loaded!");
    EXPECT_EQ(failureOf([] { keywarden::constructServices({}); }), "No service loaded!");
}

TEST_F(Services, StopWhileTheyAreConstructedIsAnOrderlyOne) {
    configure("first");
    configure("second");
    const ExitedChild end = runToExit([] {
        const sigset_t stops = keywarden::StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        sandbox().write("owner.sh",
                        "#!/bin/sh\necho \"$*\" >> '" + sandbox().path("events") +
                            "'\n[ \"$2\" = start ] && kill "
                            "-TERM $PPID\nexit 0\n",
                        0755);
        keywarden::constructServices({"first", "second"});
    });
    EXPECT_TRUE(end.exitedWith(10)) << end.dump();
    EXPECT_EQ(events(), (Words{"first start", "first stop"}));
    EXPECT_TRUE(end.logged(SeverityInfo, "Received fatal signal : Terminated"));
}

TEST_F(Services, TimersOfAllStartBeforeAnyHandler) {
    for (const char* id : {"beta", "alpha"}) {
        configure(id, "server yes");
        services().push_back(std::make_shared<keywarden::Service>(id));
    }
    CapturedLog::clear();
    keywarden::startServices();
    ASSERT_TRUE(becomes([] { return linesStarting({"Entering"}).size() == 2; }));
    const Lines all = CapturedLog::lines();
    ASSERT_EQ(all.size(), 6U) << CapturedLog::dump();
    EXPECT_EQ(all[0].text, "The service beta is starting his timer...");
    EXPECT_EQ(all[1].text, "The service beta started his timer.");
    EXPECT_EQ(all[2].text, "The service alpha is starting his timer...");
    EXPECT_EQ(all[3].text, "The service alpha started his timer.");
    EXPECT_EQ(all[4].text.rfind("Entering the command line analyzer for service ", 0), 0U);
}

TEST_F(Services, PipeFilesInTheWayOfOneAreNoEndOfTheDaemon) {
    for (const char* id : {"beta", "alpha"}) {
        configure(id);
        services().push_back(std::make_shared<keywarden::Service>(id));
    }
    const std::string input = pipes() + "/beta/beta.in";
    // Something that cannot be moved aside.
    std::filesystem::create_directory(input);
    ASSERT_EQ(::mount("tmpfs", input.c_str(), "tmpfs", 0, nullptr), 0);
    CapturedLog::clear();
    EXPECT_EQ(failureOf([] { keywarden::startServices(); }), "no exception");
    EXPECT_TRUE(CapturedLog::contains(SeverityError, "Failed to create Fifo IN for service beta"));
    EXPECT_TRUE(becomes([] {
        return CapturedLog::contains(SeverityInfo, "Entering the command line analyzer for service alpha");
    })) << CapturedLog::dump();
    ::umount(input.c_str());
    EXPECT_TRUE(becomes([] {
        return CapturedLog::contains(SeverityInfo, "Entering the command line analyzer for service beta");
    })) << CapturedLog::dump();
    EXPECT_EQ(rightsOf(input), "0720 root kwmanage");
}

TEST_F(Services, AreAnnouncedAndTold) {
    for (const char* id : {"beta", "alpha"}) {
        configure(id);
        services().push_back(std::make_shared<keywarden::Service>(id));
    }
    const std::string run = sandbox().path("run");
    const ExitedChild end = runToExit([&run] {
        useOwnRun(run);
        keywarden::announce();
        if (Sandbox::exists("/run/ready/" + std::to_string(::getpid())))
            ::dprintf(STDERR_FILENO, "marked\n");
    });
    EXPECT_EQ(linesStarting(end.log, {"The daemon"}), (Lines{{SeverityNotice, "The daemon is running."}}));
    EXPECT_EQ(end.standardError.rfind(">>>>>>>>>>> Ready for actions! \nThe daemon is running.\n", 0), 0U)
        << end.dump();
    EXPECT_THAT(end.standardError, HasSubstr("marked\n"));
    EXPECT_EQ(events(), (Words{"beta start", "alpha start", "beta allStarted", "alpha allStarted"}));
}

class NotificationFifo : public DaemonTest {};

TEST_F(NotificationFifo, IsMadeWithItsModeAndGroup) {
    std::filesystem::remove_all(pipes());
    keywarden::createNotificationFifo();
    EXPECT_EQ(rightsOf(fifo()), "0720 root kwmanage");
    EXPECT_TRUE(std::filesystem::is_fifo(fifo()));
    EXPECT_EQ(rightsOf(pipes()), "0711 root root");
}

TEST_F(NotificationFifo, ThatCannotBeMadeFails) {
    std::filesystem::remove_all(pipes());
    sandbox().write("pipes", "in the way");
    const std::string failure = "Error to create Fifo IN: " + fifo();
    EXPECT_EQ(failureOf([] { keywarden::createNotificationFifo(); }), failure);
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, failure}}));
    std::filesystem::remove(pipes());
}

class Joining : public DaemonTest {
  protected:
    void TearDown() override {
        keywarden::threadNotificationHandler = 0;
        keywarden::threadMonitorTimeNetworkConfig = 0;
        DaemonTest::TearDown();
    }
};

TEST_F(Joining, ThreadThatWasNotStartedIsNotFound) {
    keywarden::joinThreads();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{
                  {SeverityError, "No thread with the ID threadNotificationHandler could be found. "},
                  {SeverityError, "No thread with the ID threadMonitorTimeNetworkConfig could be found. "},
              }));
}

TEST_F(Joining, ThreadThatEndedIsJoinedWithoutAWord) {
    pthread_t threads[2];
    for (pthread_t& thread : threads)
        ASSERT_EQ(::pthread_create(
                      &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr),
                  0);
    keywarden::threadNotificationHandler = threads[0];
    keywarden::threadMonitorTimeNetworkConfig = threads[1];
    keywarden::joinThreads();
    EXPECT_EQ(CapturedLog::lines(), Lines{});
    EXPECT_EQ(keywarden::threadNotificationHandler, 0U);
    EXPECT_EQ(keywarden::threadMonitorTimeNetworkConfig, 0U);
}

// The thread sanitizer ends the process for joins as these.
#ifndef __SANITIZE_THREAD__
TEST_F(Joining, OneselfIsADeadlock) {
    keywarden::threadNotificationHandler = ::pthread_self();
    keywarden::joinThreads();
    EXPECT_TRUE(CapturedLog::contains(
        SeverityError,
        "A deadlock was detected (e.g., two threads tried to join with each other); or thread specifies the "
        "calling thread."))
        << CapturedLog::dump();
    EXPECT_EQ(keywarden::threadNotificationHandler, 0U);
}

TEST_F(Joining, DetachedThreadIsNotJoinable) {
    const auto expectText = [](std::atomic<pthread_t>& handle, const std::string& name) {
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        ::pthread_mutex_lock(&mutex);
        pthread_t thread{};
        ASSERT_EQ(::pthread_create(
                      &thread, nullptr,
                      [](void* held) -> void* {
                          ::pthread_mutex_lock(static_cast<pthread_mutex_t*>(held));
                          ::pthread_mutex_unlock(static_cast<pthread_mutex_t*>(held));
                          return nullptr;
                      },
                      &mutex),
                  0);
        ASSERT_EQ(::pthread_detach(thread), 0);
        handle = thread;
        keywarden::joinThreads();
        EXPECT_TRUE(CapturedLog::contains(
            SeverityError,
            name + " thread is not a joinable thread or Another thread is already waiting to join "
                   "with this thread."))
            << CapturedLog::dump();
        ::pthread_mutex_unlock(&mutex);
        ::usleep(50000);  // the detached thread still needs the mutex
    };
    expectText(keywarden::threadNotificationHandler, "threadNotificationHandler");
    expectText(keywarden::threadMonitorTimeNetworkConfig, "threadMonitorTimeNetworkConfig");
}
#endif

}  // namespace daemontest
