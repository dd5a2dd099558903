#include "support/ShortThread.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "NoMemory.h"
#include "testsupport/Child.h"

namespace {

using keywarden::runInShortThread;

TEST(ShortThread, DoesTheWorkAndIsGone) {
    std::thread::id worker;
    thread_local int own = 0;
    runInShortThread([&worker] {
        worker = std::this_thread::get_id();
        own = 1;
    });
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_NE(worker, std::thread::id());
    EXPECT_EQ(own, 0);
}

TEST(ShortThread, PassesOnWhatIsThrown) {
    try {
        runInShortThread([] { throw std::invalid_argument("not so"); });
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "not so");
    }
    EXPECT_THROW(runInShortThread([] { throw 3; }), int);
}

TEST(ShortThread, WithoutMemoryForAThreadTheCallerDoesTheWork) {
    std::thread::id worker;
    const std::function<void()> body = [&worker] { worker = std::this_thread::get_id(); };
    {
        const NoMemory memory(1);
        runInShortThread(body);
        EXPECT_TRUE(NoMemory::wasMet());
    }
    EXPECT_EQ(worker, std::this_thread::get_id());
}

// Sanitizers have threads of their own and do not live under such a limit.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST(ShortThread, WithoutAThreadTheCallerDoesTheWork) {
    EXPECT_EQ(testsupport::inChild([] {
                  testsupport::becomeNobody();
                  const rlimit none{0, 0};
                  ::setrlimit(RLIMIT_NPROC, &none);
                  std::string answer;
                  if (::setresuid(65534, 65534, 65534) != 0)
                      return std::string("still root");
                  runInShortThread([&answer, caller = std::this_thread::get_id()] {
                      answer += caller == std::this_thread::get_id() ? "the caller" : "a thread";
                  });
                  return answer;
              }),
              "the caller");
}
#endif

}  // namespace
