#include "support/Exec.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "NoMemory.h"
#include "support/StopRequest.h"
#include "support/UniqueFd.h"
#include "testsupport/Child.h"
#include "testsupport/ExitedChild.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::StopRequest;
using keywarden::UniqueFd;
using testsupport::inChild;
using testsupport::Sandbox;
using zlk::Exec;
using Milliseconds = std::chrono::milliseconds;

constexpr unsigned kNoTimeOut = 0;
constexpr std::size_t kKept = std::size_t{1024} * 1024;

std::vector<std::string> shell(const std::string& script) {
    return {"/bin/sh", "-c", script};
}

Milliseconds elapsed(const std::chrono::steady_clock::time_point& start) {
    return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start);
}

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no exception";
}

/// Neither running nor stopped: gone, or a zombie that nobody has reaped.
bool isDead(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return stat.empty() || stat.substr(stat.rfind(')') + 2, 1) == "Z";
}

bool diesSoon(pid_t pid) {
    const auto start = std::chrono::steady_clock::now();
    while (!isDead(pid) && elapsed(start) < Milliseconds(3000))
        std::this_thread::sleep_for(Milliseconds(5));
    return isDead(pid);
}

std::size_t openDescriptors() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fd"), ::closedir);
    std::size_t count = 0;
    while (::readdir(folder.get()) != nullptr)
        ++count;
    return count;
}

TEST(Exec, KeepsBothOutputsApart) {
    Exec run(shell("echo out; echo err >&2; echo more"), kNoTimeOut);
    EXPECT_EQ(run.standardOutput().str(), "out\nmore\n");
    EXPECT_EQ(run.standardError().str(), "err\n");
    EXPECT_EQ(run.wholeOutput().str(), "out\nmore\n");
    EXPECT_EQ(run.waitStatus(), 0);
    EXPECT_EQ(run.failureText(), "");
}

TEST(Exec, HandsArgumentsOverUnchanged) {
    Exec run({"/usr/bin/printf", "<%s>", "a b", "", "$HOME", "*", "c\nd"}, kNoTimeOut);
    EXPECT_EQ(run.standardOutput().str(), "<a b><><$HOME><*><c\nd>");
}

TEST(Exec, GivesTheTextAsStandardInput) {
    const std::string text = std::string("first\nsecond\0third", 18) + std::string(300000, 'x');
    Exec run({"/bin/cat"}, text, kNoTimeOut);
    EXPECT_EQ(run.standardOutput().str(), text);
}

TEST(Exec, ReadsNothingWithoutAText) {
    Exec run(shell("readlink /proc/self/fd/0; cat"), kNoTimeOut);
    EXPECT_EQ(run.standardOutput().str(), "/dev/null\n");
}

TEST(Exec, TextThatTheProgramDoesNotReadHoldsUpNobody) {
    const auto start = std::chrono::steady_clock::now();
    Exec run(shell("exit 4"), std::string(8000000, 'x'), 20);
    EXPECT_EQ(run.failureText(), "exit status 4");
    EXPECT_LT(elapsed(start), Milliseconds(5000));
}

TEST(Exec, TellsHowTheProgramFailed) {
    EXPECT_EQ(Exec(shell("exit 3"), kNoTimeOut).failureText(), "exit status 3");
    EXPECT_EQ(WEXITSTATUS(Exec(shell("exit 3"), kNoTimeOut).waitStatus()), 3);
    EXPECT_EQ(Exec(shell("kill -9 $$"), kNoTimeOut).failureText(), "signal 9");
    EXPECT_EQ(Exec(shell("kill -15 $$"), kNoTimeOut).failureText(), "signal 15");
}

TEST(Exec, MissingProgramFails) {
    EXPECT_EQ(failureOf([] { Exec({"/nonexistent/program"}, kNoTimeOut); }),
              "Cannot run /nonexistent/program: No such file or directory");
}

TEST(Exec, ProgramThatMayNotBeExecutedFails) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("script", "#!/bin/sh\n", 0644);
    EXPECT_EQ(failureOf([&path] { Exec({path}, kNoTimeOut); }), "Cannot run " + path + ": Permission denied");
}

TEST(Exec, ProgramThatIsNoneFails) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("script", "no program\n", 0755);
    EXPECT_EQ(failureOf([&path] { Exec({path}, kNoTimeOut); }), "Cannot run " + path + ": Exec format error");
}

TEST(Exec, NoProgramFails) {
    EXPECT_EQ(failureOf([] { Exec({}, kNoTimeOut); }), "Cannot run a program without a name");
}

TEST(Exec, TimeOutKillsTheProgramAndItsChildren) {
    const Sandbox sandbox;
    const std::string pidFile = sandbox.path("pid");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf([&pidFile] {
                  Exec(shell("(trap '' TERM; exec sleep 300) & echo $! > '" + pidFile + "'; wait"), 1);
              }),
              "/bin/sh did not end within 1 seconds and was killed");
    EXPECT_GE(elapsed(start), Milliseconds(1000));
    EXPECT_LT(elapsed(start), Milliseconds(2500));
    EXPECT_TRUE(diesSoon(static_cast<pid_t>(std::stol(Sandbox::read(pidFile)))));
}

TEST(Exec, TimeOutKillsAProgramThatLeftItsGroup) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf([] {
                  Exec({"/usr/bin/perl", "-e", "setpgrp(0, getpgrp(getppid())) or die; sleep 300"}, 1);
              }),
              "/usr/bin/perl did not end within 1 seconds and was killed");
    EXPECT_LT(elapsed(start), Milliseconds(2500));
}

TEST(Exec, EndsWithTheProgramThoughABackgroundChildHoldsItsOutputs) {
    const auto start = std::chrono::steady_clock::now();
    Exec run(shell("sleep 300 & echo $!"), 20);
    EXPECT_LT(elapsed(start), Milliseconds(5000));
    const auto background = static_cast<pid_t>(std::stol(run.standardOutput().str()));
    EXPECT_FALSE(isDead(background)) << "what a program leaves behind is not ours to end";
    ::kill(background, SIGKILL);
}

TEST(Exec, EndsWithTheProgramThoughABackgroundChildGoesOnPrinting) {
    const auto start = std::chrono::steady_clock::now();
    Exec run(shell("echo $$; (while :; do echo xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx; done) &"), 20);
    EXPECT_LT(elapsed(start), Milliseconds(5000));
    const auto group = static_cast<pid_t>(std::stol(run.standardOutput().str()));
    ::kill(-group, SIGKILL);
}

TEST(Exec, KeepsTheFirstMebibyteOfAHundredMegabytes) {
    rusage before{};
    ::getrusage(RUSAGE_SELF, &before);
    Exec run(shell("head -c 104857600 /dev/zero; head -c 3000000 /dev/zero >&2; exit 5"), 60);
    rusage after{};
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(run.standardOutput().str().size(), kKept);
    EXPECT_EQ(run.standardError().str().size(), kKept);
    EXPECT_EQ(run.failureText(), "exit status 5") << "the program could print all of it";
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB";
    EXPECT_EQ(failureOf([&run] { run.wholeOutput(); }), "/bin/sh printed more than 1048576 bytes");
}

TEST(Exec, AMebibyteIsWhole) {
    Exec run(shell("head -c 1048576 /dev/zero"), 60);
    EXPECT_EQ(run.wholeOutput().str().size(), kKept);
}

TEST(Exec, LeaksNoDescriptorIntoThePrograms) {
    std::vector<UniqueFd> open;
    open.reserve(40);
    for (int i = 0; i < 40; ++i)
        open.emplace_back(::open("/dev/null", O_RDONLY));  // not close-on-exec, on purpose
    Exec run({"/bin/ls", "/proc/self/fd"}, "some input", kNoTimeOut);
    EXPECT_EQ(run.standardOutput().str(), "0\n1\n2\n3\n") << "3 is the folder that ls itself reads";
}

TEST(Exec, KeepsNoDescriptorOpen) {
    failureOf([] { Exec({"/nonexistent/program"}, kNoTimeOut); });  // what is opened once for all
    const Exec warmUp(shell("sleep 0.2"), kNoTimeOut);              // long enough to be waited for
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 5; ++i) {
        const Exec run(shell("exit 0"), "input", kNoTimeOut);
        failureOf([] { Exec({"/nonexistent/program"}, "input", kNoTimeOut); });
    }
    failureOf([] { Exec(shell("sleep 300"), 1); });
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Exec, ProgramHasPlainSignals) {
    const std::string status = inChild([] {
        sigset_t blocked;
        ::sigfillset(&blocked);
        ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        for (const int ignored : {SIGPIPE, SIGHUP, SIGTSTP, SIGUSR1})
            static_cast<void>(::signal(ignored, SIG_IGN));
        return Exec({"/bin/cat", "/proc/self/status"}, kNoTimeOut).standardOutput().str();
    });
    EXPECT_NE(status.find("\nSigBlk:\t0000000000000000\n"), std::string::npos) << status;
    // The C library itself leaves its two internal signals (32 and 33) ignored.
    EXPECT_NE(status.find("\nSigIgn:\t0000000180000000\n"), std::string::npos) << status;
}

TEST(Exec, ProgramHasAGroupOfItsOwn) {
    std::istringstream stat(Exec({"/bin/cat", "/proc/self/stat"}, kNoTimeOut).standardOutput().str());
    std::string pid;
    std::string skipped;
    std::string group;
    stat >> pid >> skipped >> skipped >> skipped >> group;
    EXPECT_EQ(pid, group);
}

TEST(Exec, EndsWhereTheKernelReapsChildrenByItself) {
    const std::string output = inChild([] {
        static_cast<void>(::signal(SIGCHLD, SIG_IGN));
        Exec run(shell("echo done; exit 3"), 20);
        return run.standardOutput().str() + run.failureText();
    });
    EXPECT_EQ(output, "done\n") << "the status is not to be had";
}

TEST(Exec, WithoutDescriptorsFailsInsteadOfRunningWithoutInput) {
    const auto withRoomFor = [](std::size_t more) {
        return inChild([more] {
            const rlimit limit{64, 64};
            ::setrlimit(RLIMIT_NOFILE, &limit);
            std::vector<UniqueFd> taken;
            for (int fd = ::dup(0); fd >= 0; fd = ::dup(0))
                taken.emplace_back(fd);
            taken.resize(taken.size() - more);
            return failureOf([] { Exec({"/bin/cat"}, "input", kNoTimeOut); });
        });
    };
    EXPECT_EQ(withRoomFor(0), "Cannot prepare the input of /bin/cat: Too many open files");
    EXPECT_EQ(withRoomFor(1), "Cannot make a pipe: Too many open files");
}

TEST(Exec, RunsInManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<int> good(8, 0);
    for (std::size_t index = 0; index < good.size(); ++index)
        threads.emplace_back([index, &good] {
            for (int i = 0; i < 15; ++i) {
                const std::string text = std::to_string(index) + "-" + std::to_string(i);
                Exec run({"/bin/cat"}, text, 20);
                good[index] += run.wholeOutput().str() == text ? 1 : 0;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, std::vector<int>(8, 15));
}

// A stop cannot be taken back: these run in processes of their own.

std::string reportOf(Exec& run, const std::chrono::steady_clock::time_point& start, Milliseconds most) {
    const std::string time = elapsed(start) < most ? "" : " after " + std::to_string(elapsed(start).count());
    return run.standardOutput().str() + run.failureText() + " / " + failureOf([&run] { run.wholeOutput(); }) +
           time;
}

TEST(ExecAtAStop, RunningProgramGetsAShortGrace) {
    const std::string report = inChild([] {
        std::thread stopper([] {
            std::this_thread::sleep_for(Milliseconds(200));
            StopRequest::raise();
        });
        const auto start = std::chrono::steady_clock::now();
        Exec run(shell("echo begun; sleep 300"), kNoTimeOut);
        stopper.join();
        return reportOf(run, start, Milliseconds(3500)) +
               (elapsed(start) < Milliseconds(2150) ? " without grace" : "") +
               (run.interrupted() ? "" : " not said");
    });
    EXPECT_EQ(report, "begun\nsignal 9 / /bin/sh was ended by the stop of the daemon");
}

TEST(ExecAtAStop, ProgramThatEndsInTheGraceIsWhole) {
    const std::string report = inChild([] {
        StopRequest::raise();
        const auto start = std::chrono::steady_clock::now();
        Exec run(shell("sleep 1.05; echo done"), kNoTimeOut);
        return reportOf(run, start, Milliseconds(1900)) + (run.interrupted() ? " interrupted" : "");
    });
    EXPECT_EQ(report, "done\n / no exception");
}

TEST(ExecAtAStop, PendingSignalIsAStopAlready) {
    const std::string report = inChild([] {
        const sigset_t stops = StopRequest::signals();
        ::pthread_sigmask(SIG_BLOCK, &stops, nullptr);
        const auto start = std::chrono::steady_clock::now();
        Exec run(shell("kill -TERM $PPID; echo sent; sleep 300"), kNoTimeOut);
        return reportOf(run, start, Milliseconds(3500));
    });
    EXPECT_EQ(report, "sent\nsignal 9 / /bin/sh was ended by the stop of the daemon");
}

TEST(ExecAtAStop, TimeOutWithinTheGraceIsATimeOut) {
    const std::string report = inChild([] {
        std::thread stopper([] {
            std::this_thread::sleep_for(Milliseconds(900));
            StopRequest::raise();
        });
        std::string text = failureOf([] { Exec(shell("sleep 300"), 1); });
        stopper.join();
        return text;
    });
    EXPECT_EQ(report, "/bin/sh did not end within 1 seconds and was killed");
}

TEST(ExecAtAStop, EachProgramHasItsOwnGrace) {
    const std::string report = inChild([] {
        StopRequest::raise();
        std::string ends;
        for (const char* const text : {"sleep 1.2; echo 1", "sleep 300", "sleep 1.2; echo 2"}) {
            Exec run(shell(text), kNoTimeOut);
            ends +=
                run.standardOutput().str() + run.failureText() + (run.interrupted() ? " by the stop\n" : "");
        }
        return ends;
    });
    EXPECT_EQ(report, "1\nsignal 9 by the stop\n2\n");
}

TEST(ExecAtAStop, RunningProgramsGraceIsTheSameForAll) {
    const std::string report = inChild([] {
        const auto start = std::chrono::steady_clock::now();
        std::thread other([] { Exec(shell("sleep 300"), kNoTimeOut); });
        std::thread stopper([] {
            std::this_thread::sleep_for(Milliseconds(200));
            StopRequest::raise();
        });
        Exec(shell("sleep 300"), kNoTimeOut);
        other.join();
        stopper.join();
        return elapsed(start) < Milliseconds(3500) ? std::string("in time")
                                                   : std::to_string(elapsed(start).count());
    });
    EXPECT_EQ(report, "in time");
}

// What each allocation that fails leads to: a program that is started is also waited for.
TEST(ExecWithoutMemory, LeavesNoProgramBehind) {
    EXPECT_EQ(inChild([] {
                  std::string wrong;
                  const std::vector<std::string> program =

                      shell("echo a line that does not fit a short text; sleep 0.2");
                  bool met = true;
                  for (int number = 1; met; ++number) {
                      try {
                          const NoMemory memory(number);
                          const Exec script(program, kNoTimeOut);
                      } catch (const std::exception&) {
                          // That it fails is no fault.
                      }
                      met = NoMemory::wasMet();
                      if (::waitpid(-1, nullptr, 0) != -1 || errno != ECHILD)
                          wrong += "a child is left at " + std::to_string(number) + "\n";
                  }
                  return wrong;
              }),
              "");
}

TEST(ExecWithoutMemory, BeforeTheStartIsTheSystemsReason) {
    EXPECT_EQ(inChild([]() -> std::string {
                  const std::vector<std::string> program = shell("exit");
                  // The first one is for the list of arguments.
                  for (int number = 1; number < 10; ++number) {
                      try {
                          const NoMemory memory(number);
                          const Exec script(program, kNoTimeOut);
                      } catch (const std::system_error& error) {
                          return error.code() == std::errc::not_enough_memory ? error.what()
                                                                              : "another reason";
                      } catch (const std::bad_alloc&) {
                          continue;
                      }
                  }
                  return "no failure";
              }),
              "Cannot run /bin/sh: Cannot allocate memory");
}

}  // namespace
