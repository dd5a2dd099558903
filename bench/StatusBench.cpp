// A "status" answer through a service's pipes on one processor, against a bare round trip through two fifos.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <thread>

#include "service/Service.h"
#include "testsupport/Child.h"
#include "testsupport/TestDevice.h"

namespace {

using keywarden::Service;
using testsupport::TestDevice;

constexpr const char* kRequest = "bench\tbench\tconfig\tstatus";
constexpr const char* kAnswer = "0 running";
constexpr const char* kOwnersGroup = "benchowners";

/// A service's management group must list the daemon user: an account file of this process alone says so.
void listRootAsOwner() {
    const std::string groups = testsupport::Sandbox::read("/etc/group") + kOwnersGroup + ":x:64999:root\n";
    const std::string own = TestDevice::get().sandbox().write("group", groups);
    if (!testsupport::enterPrivateMounts())
        throw std::runtime_error("this benchmark needs a mount namespace of its own");
    testsupport::mountOver(own, "/etc/group");
}

int mustOpen(const std::string& path, int flags) {
    const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC);
    if (descriptor < 0)
        throw std::runtime_error("cannot open " + path);
    return descriptor;
}

void mustMakeFifo(const std::string& path) {
    ::unlink(path.c_str());
    if (::mkfifo(path.c_str(), 0600) != 0)
        throw std::runtime_error("cannot make the fifo " + path);
}

std::string readToEnd(int descriptor) {
    std::string text;
    std::array<char, 256> chunk;
    for (;;) {
        pollfd waiting{descriptor, POLLIN, 0};
        ::poll(&waiting, 1, -1);
        const ssize_t count = ::read(descriptor, chunk.data(), chunk.size());
        if (count > 0)
            text.append(chunk.data(), static_cast<std::size_t>(count));
        else if (count == 0 || errno != EAGAIN)
            return text;
    }
}

/// Both round trips have the same requester: its end of the answer is open before it asks.
void ask(const std::string& input, const std::string& output) {
    const int answer = mustOpen(output, O_RDONLY | O_NONBLOCK);
    const int request = mustOpen(input, O_WRONLY);
    const std::string text = kRequest;
    if (::write(request, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("cannot write the request");
    ::close(request);
    const std::string received = readToEnd(answer);
    ::close(answer);
    if (received != kAnswer)
        throw std::runtime_error("unexpected answer: " + received);
}

/// Every thread of the process runs on the same processor while this lives.
class OneProcessor {
  public:
    OneProcessor() {
        ::sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(::sched_getcpu(), &one);
        ::sched_setaffinity(0, sizeof one, &one);
    }
    ~OneProcessor() { ::sched_setaffinity(0, sizeof before_, &before_); }
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

  private:
    cpu_set_t before_{};
};

void BareFifoRoundTrip(benchmark::State& state) {
    const OneProcessor one;
    const std::string input = TestDevice::get().sandbox().path("bare.in");
    const std::string output = TestDevice::get().sandbox().path("bare.out");
    mustMakeFifo(input);
    mustMakeFifo(output);
    bool more = true;
    std::thread server([&] {
        const std::string answer = kAnswer;
        while (more) {
            const int request = mustOpen(input, O_RDONLY);
            const std::string received = readToEnd(request);
            ::close(request);
            if (received.empty())
                continue;
            const int reply = mustOpen(output, O_WRONLY);
            static_cast<void>(!::write(reply, answer.data(), answer.size()));
            ::close(reply);
        }
    });
    for (auto _ : state)
        ask(input, output);
    more = false;
    // Both ways, so that this does not wait for a server that has already seen the end.
    ::close(mustOpen(input, O_RDWR));
    server.join();
}
BENCHMARK(BareFifoRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

void KeywardStatus(benchmark::State& state) {
    static const bool prepared = (listRootAsOwner(), true);
    static_cast<void>(prepared);
    const OneProcessor one;
    const TestDevice& device = TestDevice::get();
    const std::string owner = device.sandbox().write("owner.sh", "#!/bin/sh\n", 0755);
    device.sandbox().write("status.cnf", "CN unused\n");
    device.writeService("status", "callbackScript " + owner + "\ncnfFile " +
                                      device.sandbox().path("status.cnf") + "\nmanagmentGroup " +
                                      kOwnersGroup + "\n");
    Service service("status");
    service.startHandler();
    const std::string pipes = device.pipesDirectory() + "/status/status";
    mustMakeFifo(pipes + ".out");
    for (auto _ : state)
        ask(pipes + ".in", pipes + ".out");
}
BENCHMARK(KeywardStatus)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
