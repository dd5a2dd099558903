#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <string>

#include "daemon/StartUp.h"
#include "support/Debug.h"
#include "testsupport/Child.h"
#include "testsupport/LeaveChild.h"
#include "testsupport/Sandbox.h"

namespace {

using testsupport::inChild;
using testsupport::Sandbox;

/// How many descriptors beside the standard ones are open after closing. Not with inChild(), which answers
/// through one.
int leftOpen(const std::function<void()>& prepare) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int descriptor : {3, 4, 57, 200})
            ::dup2(0, descriptor);
        prepare();
        keywarden::closeInheritedDescriptors();
        int open = 0;
        for (int descriptor = 3; descriptor < 256; ++descriptor)
            open += ::fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
        for (const int descriptor : {0, 1, 2})
            open += ::fcntl(descriptor, F_GETFD) >= 0 ? 0 : 100;
        testsupport::leaveChild(open);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Makes a system call fail as on a kernel that has not got it.
void take(long number) {
    std::array<sock_filter, 4> program{{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(number), 0, 1),
                                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1UL, 0UL, 0UL, 0UL);
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0UL, 0UL) != 0)
        testsupport::leaveChild(99);
}

TEST(InheritedDescriptors, AreClosed) {
    EXPECT_EQ(leftOpen([] {}), 0);
}

TEST(InheritedDescriptors, AreClosedWhereTheKernelCannotCloseARange) {
    EXPECT_EQ(leftOpen([] { take(SYS_close_range); }), 0);
}

TEST(InheritedDescriptors, AreClosedWithoutProcAsWell) {
    EXPECT_EQ(leftOpen([] {
                  const rlimit few{256, 256};
                  ::setrlimit(RLIMIT_NOFILE, &few);
                  take(SYS_close_range);
                  take(SYS_openat);
              }),
              0);
}

std::string cleaned(const std::function<void()>& prepare) {
    return inChild([&prepare] {
        ::clearenv();
        prepare();
        keywarden::cleanEnvironment();
        std::string text;
        for (char** entry = environ; *entry != nullptr; ++entry)
            text += std::string(*entry) + "\n";
        return text;
    });
}

TEST(Environment, KeepsPathTimeZoneAndLanguageAlone) {
    EXPECT_EQ(cleaned([] {
                  for (const char* const name : {"HOME", "TZ", "SECRET", "LANG", "LC_ALL", "PATH", "USER"})
                      ::setenv(name, "value", 1);
              }),
              "PATH=value\nTZ=value\nLANG=value\n");
}

TEST(Environment, HasAPath) {
    EXPECT_EQ(cleaned([] {}), "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n");
}

TEST(Environment, KeepsAFolderForTemporaryFilesThatCanBeUsed) {
    const Sandbox sandbox;
    const std::string path = "PATH=/bin\n";
    const auto with = [](const std::string& folder) {
        return cleaned([&folder] {
            ::setenv("PATH", "/bin", 1);
            ::setenv("TMPDIR", folder.c_str(), 1);
        });
    };
    EXPECT_EQ(with(sandbox.path()), path + "TMPDIR=" + sandbox.path() + "\n");
    EXPECT_EQ(with("relative"), path);
    EXPECT_EQ(with("/nowhere"), path);
}

TEST(StandardStreams, BecomeNullButErrorsWhereTheyAreAskedFor) {
    const auto streams = [](bool debug) {
        return inChild([debug] {
            keywarden::gDebug = debug;
            const Sandbox sandbox;
            const int file = ::open(sandbox.path("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            for (const int descriptor : {0, 1, 2})
                ::dup2(file, descriptor);
            keywarden::releaseStandardStreams();
            std::string text;
            for (const int descriptor : {0, 1, 2}) {
                struct stat info {};
                ::fstat(descriptor, &info);
                text += S_ISCHR(info.st_mode) ? "null " : "kept ";
            }
            return text;
        });
    };
    EXPECT_EQ(streams(false), "null null null ");
    EXPECT_EQ(streams(true), "null null kept ");
}

}  // namespace
