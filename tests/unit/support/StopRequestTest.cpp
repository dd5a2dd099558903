#include "support/StopRequest.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>

#include "support/Clock.h"
#include "testsupport/Child.h"

namespace {

using keywarden::StopRequest;
using testsupport::inChild;

bool isReadable(int descriptor) {
    pollfd waiting{descriptor, POLLIN, 0};
    return ::poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLIN) != 0;
}

std::string state() {
    std::string words = StopRequest::isRaised() ? "raised" : "quiet";
    if (isReadable(StopRequest::raisedDescriptor()))
        words += " told";
    if (isReadable(StopRequest::pendingSignalDescriptor()))
        words += " pending";
    return words;
}

TEST(StopRequest, SignalsAreTheThreeThatEndTheDaemon) {
    const sigset_t set = StopRequest::signals();
    for (int signal = 1; signal < 32; ++signal)
        EXPECT_EQ(::sigismember(&set, signal) == 1,
                  signal == SIGINT || signal == SIGTERM || signal == SIGQUIT)
            << signal;
}

TEST(StopRequest, IsQuietAtFirst) {
    EXPECT_EQ(inChild(state), "quiet");
    EXPECT_EQ(inChild([] { return std::to_string(StopRequest::millisecondsOfStop(0)); }), "0");
}

TEST(StopRequest, RaisedIsSeenAndTold) {
    EXPECT_EQ(inChild([] {
                  const std::string before = state();
                  StopRequest::raise();
                  StopRequest::raise();
                  return before + ", " + state();
              }),
              "quiet, raised told");
}

TEST(StopRequest, BlockedAndPendingSignalIsAStop) {
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT})
        EXPECT_EQ(inChild([signal] {
                      const sigset_t set = StopRequest::signals();
                      ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
                      const std::string before = state();
                      ::kill(::getpid(), signal);
                      const std::string after = state();
                      // As by the thread that takes the signals: the stop stays.
                      int taken = 0;
                      ::sigwait(&set, &taken);
                      const std::string afterwards = state();
                      return std::string(before).append(", ").append(after).append(", ").append(afterwards);
                  }),
                  "quiet, raised told pending, raised told")
            << signal;
}

TEST(StopRequest, OtherPendingSignalsAreNone) {
    EXPECT_EQ(inChild([] {
                  sigset_t set;
                  ::sigfillset(&set);
                  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
                  ::kill(::getpid(), SIGHUP);
                  ::kill(::getpid(), SIGUSR1);
                  return state();
              }),
              "quiet");
}

TEST(StopRequest, TimeRunsFromTheFirstRaiseOrFromALaterStart) {
    EXPECT_EQ(inChild([]() -> std::string {
                  const std::int64_t before = keywarden::Clock::monotonicMilliseconds();
                  std::this_thread::sleep_for(std::chrono::milliseconds(200));
                  StopRequest::raise();
                  const std::int64_t atOnce = StopRequest::millisecondsOfStop(before);
                  std::this_thread::sleep_for(std::chrono::milliseconds(300));
                  StopRequest::raise();
                  const std::int64_t later = StopRequest::millisecondsOfStop(before);
                  const std::int64_t ofNew =
                      StopRequest::millisecondsOfStop(keywarden::Clock::monotonicMilliseconds());
                  if (atOnce < 150 && later >= 300 && later < 450 && ofNew < 100)
                      return "as agreed";
                  return std::to_string(atOnce) + " " + std::to_string(later) + " " + std::to_string(ofNew);
              }),
              "as agreed");
}

TEST(StopRequest, OfAChildIsItsOwnAlone) {
    EXPECT_EQ(inChild([] {
                  state();  // the descriptors are there before the fork
                  const std::string child = inChild([] {
                      StopRequest::raise();
                      return state();
                  });
                  const std::string parent = state();
                  StopRequest::raise();
                  return child + ", " + parent + ", " + inChild(state);
              }),
              "raised told, quiet, raised told");
}

TEST(StopRequest, ManyThreadsMayRaiseIt) {
    EXPECT_EQ(inChild([] {
                  std::array<std::thread, 8> threads;
                  for (std::thread& thread : threads)
                      thread = std::thread(StopRequest::raise);
                  for (std::thread& thread : threads)
                      thread.join();
                  return state();
              }),
              "raised told");
}

}  // namespace
