// The real log, read at the other end of the system log's socket.
#include "support/Log.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <iostream>
#include <set>
#include <thread>
#include <vector>

#include "support/Debug.h"
#include "support/UniqueFd.h"
#include "testsupport/Child.h"

namespace {

using keywarden::Log;
using keywarden::UniqueFd;

/// The program gets a /dev of its own, with nothing but the log's socket in it.
UniqueFd bindLogSocket() {
    UniqueFd collector(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/dev/log"};
    if (::bind(collector.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("no socket at /dev/log");
    return collector;
}

class SystemLog : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        try {
            if (!testsupport::enterPrivateMounts())
                return;
            testsupport::mountEmptyFolder("/dev");
            collector = bindLogSocket();
        } catch (const std::exception& error) {
            std::cerr << error.what() << '\n';
        }
    }
    static void TearDownTestSuite() { collector.reset(); }

    void SetUp() override {
        if (!collector)
            GTEST_SKIP()
                << "NOT CHECKED: the bytes on the log's socket, since private mounts are refused here";
    }
    void TearDown() override {
        keywarden::gDebug = false;
        Log::close();
    }

    /// The next datagram; empty when none comes within the time.
    static std::string received(int milliseconds = 5000) {
        pollfd waiting{collector.get(), POLLIN, 0};
        if (::poll(&waiting, 1, milliseconds) != 1)
            return {};
        std::array<char, 8192> buffer{};
        const ssize_t size = ::recv(collector.get(), buffer.data(), buffer.size(), 0);
        return {buffer.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
    }

    /// The line's bytes with the time ("Nov  2 13:05:59 ") taken out; its form is checked.
    static std::string line() {
        constexpr std::size_t kTimeLength = 16;
        const std::string bytes = received();
        const auto time = bytes.find('>') + 1;
        const std::string text = bytes.substr(time, kTimeLength);
        std::tm parts{};
        const char* const end = ::strptime(text.c_str(), "%b %e %H:%M:%S ", &parts);
        if (text.size() != kTimeLength || end == nullptr || *end != '\0')
            return "not of the form: " + bytes;
        return bytes.substr(0, time) + bytes.substr(time + kTimeLength);
    }

    static std::string identity() { return "key-warden[" + std::to_string(::getpid()) + "]: "; }

    static UniqueFd collector;
};

UniqueFd SystemLog::collector;

TEST_F(SystemLog, EverySeverityIsThePriorityOfTheDaemonFacility) {
    Log::open();
    EXPECT_TRUE(Log::write(keywarden::SeverityEmergency, "a"));
    EXPECT_EQ(line(), "<24>" + identity() + "a");
    EXPECT_TRUE(Log::write(keywarden::SeverityError, "b"));
    EXPECT_EQ(line(), "<27>" + identity() + "b");
    EXPECT_TRUE(Log::write(keywarden::SeverityWarning, "c"));
    EXPECT_EQ(line(), "<28>" + identity() + "c");
    EXPECT_TRUE(Log::write(keywarden::SeverityNotice, "d"));
    EXPECT_EQ(line(), "<29>" + identity() + "d");
    EXPECT_TRUE(Log::write(keywarden::SeverityInfo, "e"));
    EXPECT_EQ(line(), "<30>" + identity() + "e");
}

TEST_F(SystemLog, NothingIsWrittenAnywhereBeforeOpen) {
    keywarden::gDebug = true;
    bool written = true;
    EXPECT_EQ(testsupport::standardErrorOf([&] { written = Log::write(keywarden::SeverityError, "early"); }),
              "");
    EXPECT_FALSE(written);
    EXPECT_EQ(received(50), "");
}

TEST_F(SystemLog, NothingIsWrittenAnywhereAfterClose) {
    Log::open();
    Log::close();
    keywarden::gDebug = true;
    bool written = true;
    EXPECT_EQ(testsupport::standardErrorOf([&] { written = Log::write(keywarden::SeverityError, "late"); }),
              "");
    EXPECT_FALSE(written);
    EXPECT_EQ(received(50), "");
}

TEST_F(SystemLog, LogCanBeOpenedTwiceAndAgainAfterClose) {
    Log::open();
    Log::open();
    Log::close();
    Log::close();
    EXPECT_FALSE(Log::write(keywarden::SeverityError, "closed"));
    Log::open();
    EXPECT_TRUE(Log::write(keywarden::SeverityError, "again"));
    EXPECT_EQ(line(), "<27>" + identity() + "again");
}

TEST_F(SystemLog, FormattingCharactersAreNothingSpecial) {
    Log::open();
    EXPECT_TRUE(Log::write(keywarden::SeverityNotice, "100% %s %n %d"));
    EXPECT_EQ(line(), "<29>" + identity() + "100% %s %n %d");
}

TEST_F(SystemLog, LineFeedsStayInsideTheLine) {
    Log::open();
    EXPECT_TRUE(Log::write(keywarden::SeverityNotice, "time 'Thu Dec 30 12:00:00 1999\n' is old\n"));
    EXPECT_EQ(line(), "<29>" + identity() + "time 'Thu Dec 30 12:00:00 1999\n' is old\n");
}

TEST_F(SystemLog, LongTextArrivesWhole) {
    Log::open();
    const std::string text(4000, 'x');
    EXPECT_TRUE(Log::write(keywarden::SeverityInfo, text));
    EXPECT_EQ(line(), "<30>" + identity() + text);
}

TEST_F(SystemLog, LineIsEchoedOnStandardErrorOnlyWhileDebugging) {
    Log::open();
    EXPECT_EQ(testsupport::standardErrorOf([] { Log::write(keywarden::SeverityInfo, "quiet"); }), "");
    EXPECT_EQ(line(), "<30>" + identity() + "quiet");
    keywarden::gDebug = true;
    EXPECT_EQ(testsupport::standardErrorOf([] { Log::write(keywarden::SeverityInfo, "loud %s"); }),
              "loud %s\n");
    EXPECT_EQ(line(), "<30>" + identity() + "loud %s");
}

TEST_F(SystemLog, LinesOfSeveralThreadsArriveWhole) {
    constexpr int kThreads = 4;
    constexpr int kLines = 50;
    Log::open();
    std::vector<std::thread> writers;
    writers.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread)
        writers.emplace_back([thread] {
            for (int number = 0; number < kLines; ++number)
                Log::write(keywarden::SeverityInfo, std::to_string(thread) + "/" + std::to_string(number));
        });
    std::set<std::string> lines;
    for (int count = 0; count < kThreads * kLines; ++count)
        lines.insert(line());
    for (auto& writer : writers)
        writer.join();
    EXPECT_EQ(lines.size(), std::size_t{kThreads} * kLines);
    EXPECT_EQ(lines.count("<30>" + identity() + "3/49"), 1U);
    EXPECT_EQ(lines.count("<30>" + identity() + "0/0"), 1U);
}

}  // namespace
