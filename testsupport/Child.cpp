#include "testsupport/Child.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "support/UniqueFd.h"
#include "testsupport/LeaveChild.h"

namespace testsupport {

namespace {

constexpr gid_t kNobody = 65534;
constexpr int kThrew = 97;
constexpr int kRefused = 98;

struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void writeAll(int fd, const std::string& text) {
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count <= 0)
            return;
        written += static_cast<std::size_t>(count);
    }
}

std::string readAll(int fd) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

/// Never returns: the child must not run what the test program registered for its own exit.
[[noreturn]] void runChild(int fd, const std::function<std::string()>& body) {
    int code = 0;
    std::string text;
    try {
        text = body();
    } catch (const Refused& error) {
        code = kRefused;
        text = error.what();
    } catch (const std::exception& error) {
        code = kThrew;
        text = error.what();
    }
    writeAll(fd, text);
    leaveChild(code);
}

struct ChildEnd {
    int status;
    std::string text;
};

ChildEnd run(const std::function<std::string()>& body) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe for a child");
    const keywarden::UniqueFd reading(ends[0]);
    keywarden::UniqueFd writing(ends[1]);
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("no child");
    if (child == 0)
        runChild(writing.get(), body);
    writing.reset();
    ChildEnd end{0, readAll(reading.get())};
    while (::waitpid(child, &end.status, 0) < 0 && errno == EINTR) {
    }
    return end;
}

std::string resultOf(const ChildEnd& end) {
    if (WIFEXITED(end.status) && WEXITSTATUS(end.status) == 0)
        return end.text;
    if (WIFEXITED(end.status) && WEXITSTATUS(end.status) == kThrew)
        throw std::runtime_error("the child threw: " + end.text);
    throw std::runtime_error("the child ended with wait status " + std::to_string(end.status));
}

}  // namespace

std::string inChild(const std::function<std::string()>& body) {
    return resultOf(run(body));
}

std::optional<std::string> inPrivateMounts(const std::function<void()>& mounts,
                                           const std::function<std::string()>& body) {
    const ChildEnd end = run([&mounts, &body] {
        if (!enterPrivateMounts())
            throw Refused("unshare: " + std::string(std::strerror(errno)));
        mounts();
        return body();
    });
    if (WIFEXITED(end.status) && WEXITSTATUS(end.status) == kRefused) {
        std::cerr << "private mounts are refused here (" << end.text << ")\n";
        return std::nullopt;
    }
    return resultOf(end);
}

bool enterPrivateMounts() {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

void mountOver(const std::string& source, const std::string& target) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw Refused("mount over " + target + ": " + std::strerror(errno));
}

void mountEmptyFolder(const std::string& target) {
    if (::mount("tmpfs", target.c_str(), "tmpfs", 0, nullptr) != 0)
        throw Refused("mount on " + target + ": " + std::strerror(errno));
}

void becomeNobody() {
    if (::setgroups(0, nullptr) != 0 || ::setegid(kNobody) != 0 || ::seteuid(kNobody) != 0)
        throw std::runtime_error("cannot become nobody; these tests run as root");
}

std::string standardErrorOf(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    try {
        action();
    } catch (...) {
        std::cerr << testing::internal::GetCapturedStderr();
        throw;
    }
    std::cerr.flush();
    return testing::internal::GetCapturedStderr();
}

}  // namespace testsupport
