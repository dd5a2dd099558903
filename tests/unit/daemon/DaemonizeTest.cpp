// The pid file and the step into the background.
#include "daemon/Daemonize.h"

#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "DaemonFixture.h"
#include "FailingCalls.h"
#include "daemon/Exit.h"
#include "daemon/PidFile.h"
#include "support/Accounts.h"
#include "support/FileWriteError.h"
#include "support/StopRequest.h"
#include "testsupport/Child.h"

namespace daemontest {

using keywarden::daemonize;
using keywarden::FileWriteError;
using keywarden::Log;
using keywarden::SeverityEmergency;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::StopRequest;
using keywarden::writePidFile;
using testing::HasSubstr;
using testsupport::ExitedChild;
using testsupport::inChild;
using testsupport::runToExit;
using testsupport::Sandbox;

class PidFile : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        std::filesystem::create_directories(sandbox().path("run"));
        ::chmod(sandbox().path("run").c_str(), 0755);
    }
    static std::string writtenByNobody(const std::string& path) {
        return inChild([&path]() -> std::string {
            testsupport::becomeNobody();
            try {
                writePidFile(path, 42, "nobody");
                return "written";
            } catch (const FileWriteError& error) {
                return "refused " + std::to_string(error.errorNumber());
            }
        });
    }
};

TEST_F(PidFile, HoldsTheNumberAloneWithItsRights) {
    writePidFile(pidFile(), 4711, "daemon");
    EXPECT_EQ(Sandbox::read(pidFile()), "4711");
    EXPECT_EQ(rightsOf(pidFile()), "0664 daemon daemon");
    writePidFile(pidFile(), 5, "root");
    EXPECT_EQ(Sandbox::read(pidFile()), "5");
    EXPECT_EQ(rightsOf(pidFile()), "0664 root root");
}

TEST_F(PidFile, InAClosedFolderIsWrittenInPlace) {
    const std::string path = sandbox().write("run/keywardd.pid", "before that", 0664);
    ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    EXPECT_EQ(writtenByNobody(path), "written");
    EXPECT_EQ(Sandbox::read(path), "42");
}

TEST_F(PidFile, OfSomebodyElseInAClosedFolderIsRefused) {
    const std::string path = sandbox().write("run/keywardd.pid", "4711", 0644);
    EXPECT_EQ(writtenByNobody(path), "refused " + std::to_string(EACCES));
    EXPECT_EQ(Sandbox::read(path), "4711");
}

TEST_F(PidFile, LinkInAClosedFolderIsNotFollowed) {
    const std::string victim = sandbox().write("victim", "keep me", 0666);
    std::filesystem::create_symlink(victim, sandbox().path("run/keywardd.pid"));
    EXPECT_EQ(writtenByNobody(sandbox().path("run/keywardd.pid")), "refused " + std::to_string(EACCES));
    EXPECT_EQ(Sandbox::read(victim), "keep me");
}

TEST_F(PidFile, InAMissingFolderIsRefused) {
    EXPECT_EQ(writtenByNobody("/nonexistent/keywardd.pid"), "refused " + std::to_string(ENOENT));
}

class Background : public DaemonTest {
  protected:
    static void say(const std::string& text) { Log::write(SeverityInfo, text); }
};

TEST_F(Background, ChildGoesOnWhenItsPidIsWritten) {
    const ExitedChild end = runToExit([] {
        const pid_t before = ::getpid();
        daemonize();
        say(::getpid() != before ? "a child" : "the parent");
        say(Sandbox::read(pidFile()) == std::to_string(::getpid()) ? "the file names it"
                                                                   : "the file does not");
        say(rightsOf(pidFile()));
        say(::getsid(0) == ::getpid() ? "own session" : "same session");
    });
    EXPECT_TRUE(end.exitedWith(0)) << "the parent: " << end.dump();
    EXPECT_EQ(end.log, (Lines{{SeverityInfo, "a child"},
                              {SeverityInfo, "the file names it"},
                              {SeverityInfo, "0664 root root"},
                              {SeverityInfo, "own session"}}));
    EXPECT_EQ(end.standardError.rfind("Are we already a deamon ?\nAre we already a deamon ? No. Create a "
                                      "daemon.\nParent process terminating after successfull fork.\n",
                                      0),
              0U)
        << end.dump();
}

TEST_F(Background, ParentLeavesTheLockAndItsFiles) {
    sandbox().write("keywardd.lock", "");
    runToExit([] { daemonize(); });
    EXPECT_TRUE(Sandbox::exists(lockFile()));
    EXPECT_TRUE(Sandbox::exists(pidFile()));
}

TEST_F(Background, TerminalSignalsAreIgnored) {
    const ExitedChild end = runToExit([] {
        static_cast<void>(::signal(SIGCHLD, SIG_IGN));
        daemonize();
        for (const int signal : {SIGTSTP, SIGTTOU, SIGTTIN, SIGHUP, SIGCHLD}) {
            struct sigaction action {};
            ::sigaction(signal, nullptr, &action);
            say(action.sa_handler == SIG_IGN   ? "ignored"
                : action.sa_handler == SIG_DFL ? "default"
                                               : "caught");
        }
    });
    const testsupport::LogLine ignored{SeverityInfo, "ignored"};
    EXPECT_EQ(end.log, (Lines{ignored, ignored, ignored, ignored, {SeverityInfo, "default"}}));
}

TEST_F(Background, PidFileThatCannotBeWrittenEndsBoth) {
    sandbox().write("keywardd.pid/inside", "");
    sandbox().write("keywardd.lock", "");
    const ExitedChild end = runToExit([] {
        daemonize();
        say("the child goes on");
    });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_EQ(end.log, (Lines{
                           {SeverityError, "PID File '" + pidFile() + "' open failed"},
                           {SeverityError, "Failed to remove file '" + pidFile() + "' : Directory not empty"},
                           {SeverityEmergency, "Stopping with the code 12..."},
                       }));
    EXPECT_FALSE(Sandbox::exists(lockFile()));
}

TEST_F(Background, StopThatReachedTheParentIsPassedOn) {
    const ExitedChild end = runToExit([] {
        const sigset_t stops = StopRequest::signals();
        ::sigprocmask(SIG_BLOCK, &stops, nullptr);
        ::kill(::getpid(), SIGINT);
        daemonize();
        say(becomes([] { return StopRequest::isRaised(); }, std::chrono::seconds(5)) ? "asked to stop"
                                                                                     : "not asked");
    });
    EXPECT_TRUE(end.exitedWith(0));
    EXPECT_EQ(end.log, (Lines{{SeverityInfo, "asked to stop"}})) << end.dump();
}

TEST_F(Background, ChildThatFailsAtOnceRemovesThePidFileForGood) {
    for (int i = 0; i < 10; ++i) {
        runToExit([] {
            daemonize();
            keywarden::exitDaemon(12, "at once", true);
        });
        ASSERT_FALSE(Sandbox::exists(pidFile())) << i;
    }
}

TEST_F(Background, ChildThatIsInterruptedWhileItListensListensAgain) {
    for (const int error : {EINTR, EAGAIN}) {
        const ExitedChild end = runToExit([error] {
            const FailingCalls failing(FailingCalls::Of::ReadOfAByte, error, 1, 3);
            daemonize();
            say(FailingCalls::wereUsed() ? "goes on" : "no failure");
        });
        EXPECT_EQ(end.log, (Lines{{SeverityInfo, "goes on"}})) << end.dump();
    }
}

TEST_F(Background, ChildThatCannotHearItsParentGoesOn) {
    sandbox().write("keywardd.lock", "");
    const ExitedChild end = runToExit([] {
        const FailingCalls failing(FailingCalls::Of::ReadOfAByte, EIO, 1, 1);
        daemonize();
        say(Sandbox::read(pidFile()) == std::to_string(::getpid()) ? "the file names it"
                                                                   : "the file does not");
    });
    EXPECT_TRUE(end.exitedWith(0)) << "the parent: " << end.dump();
    EXPECT_EQ(end.log, (Lines{{SeverityError, "The parent process cannot be heard, err: Input/output error"},
                              {SeverityInfo, "the file names it"}}));
}

TEST_F(Background, ChildThatCannotHearItsParentFailEndsWithIt) {
    sandbox().write("keywardd.pid/inside", "");
    sandbox().write("keywardd.lock", "");
    const ExitedChild end = runToExit([] {
        const FailingCalls failing(FailingCalls::Of::ReadOfAByte, EIO, 1, 1);
        daemonize();
        say("the child goes on");
    });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_FALSE(end.logged(SeverityInfo, "the child goes on"));
    EXPECT_FALSE(Sandbox::exists(lockFile()));
}

TEST_F(Background, ParentThatCannotTellIsNoEndOfTheChild) {
    sandbox().write("keywardd.lock", "");
    for (const int error : {EAGAIN, EIO}) {
        const ExitedChild end = runToExit([error] {
            const FailingCalls failing(FailingCalls::Of::WriteOfAByte, error, 1,
                                       error == EIO ? FailingCalls::kAll : 1);
            daemonize();
            say("goes on");
        });
        EXPECT_TRUE(end.exitedWith(0)) << end.dump();
        EXPECT_EQ(end.log, (Lines{{SeverityInfo, "goes on"}})) << end.dump();
    }
}

// Sanitizers have threads of their own and do not live under such a limit.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST_F(Background, ForkThatFailsIsFatal) {
    const ExitedChild end = runToExit([] {
        const auto nobody = keywarden::userIdOf("nobody");
        if (::setresuid(*nobody, *nobody, *nobody) != 0)
            throw std::runtime_error("cannot become nobody");
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_NPROC, &none);
        daemonize();
    });
    EXPECT_TRUE(end.exitedWith(12)) << end.dump();
    EXPECT_EQ(linesStarting(end.log, {"Daemon Failure", "Stopping"}),
              (Lines{
                  {SeverityError, "Daemon Failure: Fork failed Resource temporarily unavailable"},
                  {SeverityEmergency, "Stopping with the code 12..."},
              }));
}
#endif

TEST_F(Background, ProcessOfInitDoesNotFork) {
    const ExitedChild end = runToExit([] {
        // The first process of a namespace is number 1 to its children.
        if (::unshare(CLONE_NEWPID) != 0)
            throw std::runtime_error("no process numbers of our own");
        const auto inFork = [](const std::function<void()>& body) {
            const pid_t child = ::fork();
            if (child == 0) {
                body();
                ::_exit(0);
            }
            ::waitpid(child, nullptr, 0);
        };
        inFork([&inFork] {
            inFork([] {
                const pid_t before = ::getpid();
                daemonize();
                if (::getppid() == 1 && ::getpid() == before)
                    ::dprintf(STDERR_FILENO, "still the same\n");
                if (::getsid(0) == ::getpid())
                    ::dprintf(STDERR_FILENO, "own session\n");
            });
        });
    });
    EXPECT_EQ(end.standardError, "Are we already a deamon ?\nstill the same\nown session\n");
    EXPECT_FALSE(Sandbox::exists(pidFile()));
}

}  // namespace daemontest
