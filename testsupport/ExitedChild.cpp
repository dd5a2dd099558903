#include "testsupport/ExitedChild.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "support/Debug.h"
#include "support/UniqueFd.h"
#include "testsupport/LeaveChild.h"

namespace testsupport {

namespace {

using keywarden::UniqueFd;

constexpr int kThrew = 99;

struct Pipe {
    UniqueFd reading;
    UniqueFd writing;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe for a child");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::string packedLog() {
    std::string packed;
    for (const LogLine& line : CapturedLog::lines()) {
        packed += static_cast<char>('0' + line.severity);
        packed += line.text;
        packed += '\0';
    }
    return packed;
}

std::vector<LogLine> unpacked(const std::string& packed) {
    std::vector<LogLine> lines;
    for (std::size_t start = 0; start < packed.size();) {
        const std::size_t end = packed.find('\0', start);
        lines.push_back({static_cast<keywarden::Severity>(packed[start] - '0'),
                         packed.substr(start + 1, end - start - 1)});
        start = end + 1;
    }
    return lines;
}

int logDescriptor = -1;

void tellLog() {
    const std::string packed = packedLog();
    for (std::size_t done = 0; done < packed.size();) {
        const ssize_t count = ::write(logDescriptor, packed.data() + done, packed.size() - done);
        if (count <= 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    std::cerr.flush();
}

// Registered last, so run first: nothing of the parent's is destroyed.
void leaveWithLog(int status, void* /*unused*/) {
    tellLog();
    leaveChild(status);
}

void leaveQuickly() {
    tellLog();
    keepCounts();
}

[[noreturn]] void runChild(const std::function<void()>& body, int log, int standardError) {
    ::dup2(standardError, STDERR_FILENO);
    logDescriptor = log;
    ::on_exit(leaveWithLog, nullptr);
    ::at_quick_exit(leaveQuickly);
    CapturedLog::clear();
    keywarden::gDebug = true;
    try {
        body();
    } catch (const std::exception& error) {
        std::cerr << "the child threw: " << error.what() << '\n';
        std::exit(kThrew);
    } catch (...) {
        std::exit(kThrew);
    }
    std::exit(0);
}

// Both at once: neither may fill up while the other is waited for.
void readBoth(UniqueFd& first, std::string& firstText, UniqueFd& second, std::string& secondText) {
    const auto readOnce = [](UniqueFd& from, std::string& text) {
        std::array<char, 4096> chunk{};
        const ssize_t count = ::read(from.get(), chunk.data(), chunk.size());
        if (count > 0)
            text.append(chunk.data(), static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            from.reset();
    };
    while (first || second) {
        std::array<pollfd, 2> waiting{{{first.get(), POLLIN, 0}, {second.get(), POLLIN, 0}}};
        ::poll(waiting.data(), waiting.size(), -1);
        if (waiting[0].revents != 0)
            readOnce(first, firstText);
        if (waiting[1].revents != 0)
            readOnce(second, secondText);
    }
}

}  // namespace

bool ExitedChild::exitedWith(int code) const {
    return WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == code;
}

bool ExitedChild::logged(keywarden::Severity severity, const std::string& text) const {
    for (const LogLine& line : log)
        if (line == LogLine{severity, text})
            return true;
    return false;
}

std::string ExitedChild::dump() const {
    std::string text = "wait status " + std::to_string(waitStatus) + "\n";
    for (const LogLine& line : log)
        text += std::to_string(line.severity) + " " + line.text + "\n";
    return text + "standard error:\n" + standardError;
}

ExitedChild runToExit(const std::function<void()>& body) {
    Pipe log = makePipe();
    Pipe standardError = makePipe();
    std::cout.flush();
    static_cast<void>(std::fflush(nullptr));
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("no child");
    if (child == 0)
        runChild(body, log.writing.get(), standardError.writing.get());
    log.writing.reset();
    standardError.writing.reset();
    ExitedChild end;
    std::string packed;
    readBoth(log.reading, packed, standardError.reading, end.standardError);
    while (::waitpid(child, &end.waitStatus, 0) < 0 && errno == EINTR) {
    }
    end.log = unpacked(packed);
    return end;
}

}  // namespace testsupport
