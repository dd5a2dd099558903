#include "support/FifoReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "OpenHook.h"
#include "support/Accounts.h"
#include "support/Cancellation.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::FifoLimits;
using keywarden::FifoReader;
using keywarden::Folder;
using keywarden::FolderPtr;
using keywarden::groupIdOf;
using keywarden::SeverityError;
using keywarden::UniqueFd;
using testsupport::CapturedLog;
using testsupport::inChild;
using testsupport::Sandbox;
using Milliseconds = std::chrono::milliseconds;

constexpr mode_t kMode = 0720;
constexpr const char* kGroup = "adm";

class FifoReaderTest : public testing::Test {
  protected:
    FifoReaderTest() {
        CapturedLog::clear();
        static_cast<void>(::signal(SIGPIPE, SIG_IGN));
        if (!folder->makeFifo("fifo", kMode, kGroup))
            throw std::runtime_error("no fifo");
    }

    [[nodiscard]] UniqueFd writer() const { return UniqueFd(::open(path.c_str(), O_WRONLY | O_CLOEXEC)); }

    /// False when the reader was not there for it.
    [[nodiscard]] bool write(const std::string& text) const {
        const UniqueFd end = writer();
        return end && ::write(end.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    /// One text as the reader delivers it, to its end. "-1" when the fifo is lost.
    static std::string readText(FifoReader& reader, std::size_t capacity = 1023) {
        std::string text;
        std::vector<char> chunk(capacity);
        for (;;) {
            const ssize_t count = reader.read(chunk.data(), chunk.size());
            if (count < 0)
                return "-1";
            if (count == 0)
                return text;
            text.append(chunk.data(), static_cast<std::size_t>(count));
        }
    }

    [[nodiscard]] std::string madeAgain() const {
        return "The path " + path + " is not a fifo any more. Making it again.";
    }

    [[nodiscard]] struct stat look() const {
        struct stat info {};
        ::lstat(path.c_str(), &info);
        return info;
    }

    Sandbox sandbox;
    std::string path = sandbox.path("fifo");
    FolderPtr folder = Folder::at(sandbox.path(), Folder::Owner::Ours);
    FifoReader reader{folder, "fifo", kMode, kGroup};
};

TEST_F(FifoReaderTest, MakesTheFifoWithItsExactModeAndGroup) {
    const std::string other = sandbox.path("other");
    const mode_t before = ::umask(0077);
    EXPECT_TRUE(folder->makeFifo("other", kMode, kGroup));
    ::umask(before);
    struct stat info {};
    ASSERT_EQ(::lstat(other.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFIFO | 0720U);
    EXPECT_EQ(info.st_gid, groupIdOf("adm"));
}

TEST_F(FifoReaderTest, MakesTheFifoWithoutAGroupThatIsUnknown) {
    const std::string other = sandbox.path("other");
    EXPECT_TRUE(folder->makeFifo("other", kMode, "no-such-group"));
    struct stat info {};
    ASSERT_EQ(::lstat(other.c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, ::getegid());
}

TEST_F(FifoReaderTest, MakesTheFifoInPlaceOfWhatStandsThere) {
    const std::string victim = sandbox.write("victim", "keep me", 0600);
    std::filesystem::create_symlink(victim, sandbox.path("link"));
    sandbox.write("file", "");
    sandbox.write("folder/inside", "keep me too");
    for (const std::string name : {"link", "file", "folder"}) {
        EXPECT_TRUE(folder->makeFifo(name, kMode, kGroup)) << name;
        EXPECT_TRUE(std::filesystem::is_fifo(std::filesystem::symlink_status(sandbox.path(name)))) << name;
    }
    EXPECT_EQ(Sandbox::read(victim), "keep me");
    EXPECT_EQ(Sandbox::mode(victim), 0600U);
    std::filesystem::remove_all(sandbox.path());
    EXPECT_FALSE(folder->makeFifo("other", kMode, kGroup));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FifoReaderTest, ReadsWriterAfterWriterToTheEnd) {
    ASSERT_TRUE(reader.open());
    for (const std::string& text : {std::string("first"), std::string("second\n"), std::string(40000, 'x')}) {
        std::thread writing([&] { EXPECT_TRUE(write(text)); });
        EXPECT_EQ(readText(reader), text);
        writing.join();
    }
}

TEST_F(FifoReaderTest, DeliversAtMostTheCapacity) {
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(write("abcdefgh"));
    std::array<char, 3> chunk{};
    EXPECT_EQ(reader.read(chunk.data(), chunk.size()), 3);
    EXPECT_EQ(std::string(chunk.data(), 3), "abc");
    EXPECT_EQ(readText(reader, 3), "defgh");
}

TEST_F(FifoReaderTest, WaitsForASlowWriter) {
    ASSERT_TRUE(reader.open());
    std::thread writing([this] {
        const UniqueFd end = writer();
        for (const char* part : {"one ", "two ", "three"}) {
            std::this_thread::sleep_for(Milliseconds(40));
            EXPECT_GT(::write(end.get(), part, std::string(part).size()), 0);
        }
        std::this_thread::sleep_for(Milliseconds(40));
    });
    EXPECT_EQ(readText(reader), "one two three");
    writing.join();
}

TEST_F(FifoReaderTest, WriterThatWritesNothingIsAnEmptyText) {
    ASSERT_TRUE(reader.open());
    { const UniqueFd silent = writer(); }
    EXPECT_EQ(readText(reader), "");
    ASSERT_TRUE(write("next"));
    EXPECT_EQ(readText(reader), "next");
}

TEST_F(FifoReaderTest, TextOfTwoWritersAtOnceEndsWithTheLast) {
    ASSERT_TRUE(reader.open());
    UniqueFd first = writer();
    UniqueFd second = writer();
    ASSERT_EQ(::write(first.get(), "a", 1), 1);
    first.reset();
    std::array<char, 8> chunk{};
    ASSERT_EQ(reader.read(chunk.data(), chunk.size()), 1);
    ASSERT_EQ(::write(second.get(), "b", 1), 1);
    second.reset();
    EXPECT_EQ(readText(reader), "b");
}

TEST_F(FifoReaderTest, WriterBetweenAnEndAndTheNextOpeningIsReadToItsEnd) {
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(write("first"));
    const OpenHook hook("fifo", [this] { EXPECT_TRUE(write("second")); });
    EXPECT_EQ(readText(reader), "first");
    ASSERT_TRUE(OpenHook::wasUsed());
    EXPECT_EQ(readText(reader), "second");
    ASSERT_TRUE(write("third"));
    EXPECT_EQ(readText(reader), "third");
}

TEST_F(FifoReaderTest, WriterThatStaysOverTheNextOpeningIsReadToItsEnd) {
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(write("first"));
    UniqueFd second;
    const OpenHook hook("fifo", [this, &second] { second = writer(); });
    EXPECT_EQ(readText(reader), "first");
    ASSERT_TRUE(OpenHook::wasUsed());
    ASSERT_EQ(::write(second.get(), "second", 6), 6);
    std::array<char, 8> chunk{};
    ASSERT_EQ(reader.read(chunk.data(), chunk.size()), 6);
    std::thread closing([&second] {
        std::this_thread::sleep_for(Milliseconds(50));
        second.reset();
    });
    EXPECT_EQ(readText(reader), "");
    closing.join();
}

TEST_F(FifoReaderTest, ThousandsOfWritersLoseNothing) {
    ASSERT_TRUE(reader.open());
    constexpr int kWriters = 5000;
    std::atomic<int> refused{0};
    std::thread writing([this, &refused] {
        for (int i = 0; i < kWriters; ++i)
            refused += write("0123456789") ? 0 : 1;
        refused += write("!") ? 0 : 1;
    });
    std::string all;
    while (all.empty() || all.back() != '!')
        all += readText(reader);
    writing.join();
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(all.size(), kWriters * 10U + 1);
}

TEST_F(FifoReaderTest, ChildrenInheritNoEnd) {
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(write("x"));
    EXPECT_EQ(readText(reader), "x");
    int ends = 0;
    for (int descriptor = 3; descriptor < 256; ++descriptor) {
        struct stat info {};
        if (::fstat(descriptor, &info) != 0 || info.st_ino != look().st_ino)
            continue;
        ++ends;
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(ends, 1) << "the old end is closed";
}

TEST_F(FifoReaderTest, RegularFileInItsPlaceMakesItAgain) {
    ASSERT_TRUE(reader.open());
    UniqueFd last = writer();
    std::filesystem::remove(path);
    sandbox.write("fifo", "no request");
    last.reset();
    EXPECT_EQ(readText(reader), "");
    EXPECT_EQ(look().st_mode, S_IFIFO | 0720U);
    EXPECT_EQ(look().st_gid, groupIdOf(kGroup));
    EXPECT_EQ(CapturedLog::count(SeverityError, madeAgain()), 1U);
    ASSERT_TRUE(write("request"));
    EXPECT_EQ(readText(reader), "request");
}

TEST_F(FifoReaderTest, MissingPathIsMadeAgain) {
    std::filesystem::remove(path);
    EXPECT_TRUE(reader.open());
    EXPECT_EQ(look().st_mode, S_IFIFO | 0720U);
    EXPECT_TRUE(CapturedLog::contains(SeverityError, madeAgain()));
}

TEST_F(FifoReaderTest, LinkInItsPlaceIsNotFollowed) {
    const std::string other = sandbox.path("other");
    ASSERT_TRUE(folder->makeFifo("other", 0600, ""));
    std::filesystem::remove(path);
    std::filesystem::create_symlink(other, path);
    EXPECT_TRUE(reader.open());
    EXPECT_EQ(look().st_mode, S_IFIFO | 0720U);
    EXPECT_EQ(Sandbox::mode(other), 0600U);
    EXPECT_TRUE(CapturedLog::contains(SeverityError, madeAgain()));
}

TEST_F(FifoReaderTest, FolderInItsPlaceIsMovedAside) {
    ASSERT_TRUE(reader.open());
    UniqueFd last = writer();
    std::filesystem::remove(path);
    sandbox.write("fifo/inside", "keep me");
    last.reset();
    EXPECT_EQ(readText(reader), "");
    EXPECT_EQ(look().st_mode, S_IFIFO | 0720U);
    EXPECT_EQ(CapturedLog::count(SeverityError, madeAgain()), 1U);
    ASSERT_TRUE(write("request"));
    EXPECT_EQ(readText(reader), "request");
}

TEST_F(FifoReaderTest, FifoWithASecondNameIsNotTheirs) {
    ASSERT_EQ(::link(path.c_str(), sandbox.path("another").c_str()), 0);
    EXPECT_TRUE(reader.open());
    EXPECT_EQ(look().st_nlink, 1U);
    EXPECT_EQ(CapturedLog::count(SeverityError, madeAgain()), 1U);
}

TEST_F(FifoReaderTest, RemovedFolderIsTheEnd) {
    ASSERT_TRUE(reader.open());
    UniqueFd last = writer();
    std::filesystem::remove_all(sandbox.path());
    last.reset();
    EXPECT_EQ(readText(reader), "-1");
    EXPECT_EQ(CapturedLog::lines().size(), 1U) << "told once, not at every attempt";
}

TEST_F(FifoReaderTest, ShortageOfDescriptorsIsWaitedOut) {
    const ino_t before = look().st_ino;
    EXPECT_EQ(inChild([this] {
                  const rlimit limit{static_cast<rlim_t>(0), 64};
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  std::thread relief([] {
                      std::this_thread::sleep_for(Milliseconds(1200));
                      const rlimit enough{static_cast<rlim_t>(64), 64};
                      ::setrlimit(RLIMIT_NOFILE, &enough);
                  });
                  const bool opened = reader.open();
                  relief.join();
                  return std::to_string(opened) + CapturedLog::dump();
              }),
              "1");
    EXPECT_EQ(look().st_ino, before);
}

/// A reader that leaves writers behind; times in milliseconds.
class LimitedFifoReaderTest : public FifoReaderTest {
  protected:
    static constexpr std::int64_t kNever = FifoLimits::kUnlimited;

    ssize_t readOnce() {
        std::array<char, 64> chunk{};
        return limited.read(chunk.data(), chunk.size());
    }

    void setLimits(std::int64_t silence, std::int64_t text) {
        limited = FifoReader(folder, "fifo", kMode, kGroup, {silence, text});
        ASSERT_TRUE(limited.open());
    }

    /// Later writers are read as before, and nothing else was left in the folder.
    void expectFreshFifo(ino_t before) {
        EXPECT_NE(look().st_ino, before);
        EXPECT_EQ(look().st_mode, S_IFIFO | 0720U);
        EXPECT_EQ(look().st_gid, groupIdOf(kGroup));
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(sandbox.path()), {}), 1);
        EXPECT_TRUE(write("next"));
        EXPECT_EQ(readText(limited), "next");
    }

    [[nodiscard]] std::string leftBehind() const {
        return "A writer holds the fifo " + path + " and does not end its text. Making it again.";
    }

    FifoReader limited{folder, "fifo", kMode, kGroup, {100, kNever}};
};

TEST_F(LimitedFifoReaderTest, SilentWriterIsLeftBehindWithTheNextText) {
    setLimits(100, kNever);
    const ino_t before = look().st_ino;
    const UniqueFd hung = writer();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(write("whole"));
    EXPECT_EQ(readOnce(), 5);
    EXPECT_EQ(readOnce(), FifoReader::kOverdue);
    EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(99));
    expectFreshFifo(before);
    EXPECT_EQ(::write(hung.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(CapturedLog::dump(), "3 " + leftBehind() + "\n");
}
TEST_F(LimitedFifoReaderTest, WriterThatHangsInItsTextIsLeftBehind) {
    setLimits(100, kNever);
    const ino_t before = look().st_ino;
    const UniqueFd hung = writer();
    ASSERT_EQ(::write(hung.get(), "half", 4), 4);
    EXPECT_EQ(readOnce(), 4);
    EXPECT_EQ(readOnce(), FifoReader::kOverdue);
    expectFreshFifo(before);
    EXPECT_EQ(CapturedLog::count(SeverityError, leftBehind()), 1U);
}

TEST_F(LimitedFifoReaderTest, WriterThatNeverComesToItsEndIsLeftBehind) {
    for (const auto pause : {Milliseconds(0), Milliseconds(10)}) {
        setLimits(1000, 200);
        const ino_t before = look().st_ino;
        std::atomic<bool> done{false};
        std::thread dripping([this, &done, pause] {
            const UniqueFd end = writer();
            ::fcntl(end.get(), F_SETFL, O_NONBLOCK);
            while (!done) {
                static_cast<void>(!::write(end.get(), "x", 1));
                std::this_thread::sleep_for(pause);
            }
        });
        ssize_t count = 0;
        do
            count = readOnce();
        while (count > 0);
        EXPECT_EQ(count, FifoReader::kOverdue);
        expectFreshFifo(before);
        done = true;
        dripping.join();
    }
}

TEST_F(LimitedFifoReaderTest, WritersWithinTheLimitsAreReadAsEver) {
    setLimits(300, 2000);
    const ino_t before = look().st_ino;
    std::thread writing([this] {
        // Longer than the limit without any writer.
        std::this_thread::sleep_for(Milliseconds(400));
        EXPECT_TRUE(write("first"));
        const UniqueFd end = writer();
        for (int part = 0; part < 5; ++part) {
            std::this_thread::sleep_for(Milliseconds(80));
            EXPECT_EQ(::write(end.get(), "x", 1), 1);
        }
    });
    std::string all = readText(limited);
    while (all.size() < 10)
        all += readText(limited);
    writing.join();
    EXPECT_EQ(all, "firstxxxxx");
    EXPECT_EQ(look().st_ino, before);
    EXPECT_EQ(CapturedLog::dump(), "");
}

TEST_F(LimitedFifoReaderTest, FifoThatCannotBeMadeAgainKeepsItsWriter) {
    setLimits(100, kNever);
    UniqueFd hung = writer();
    ASSERT_EQ(::write(hung.get(), "half", 4), 4);
    std::filesystem::remove_all(sandbox.path());
    EXPECT_EQ(readOnce(), 4);
    EXPECT_EQ(readOnce(), FifoReader::kOverdue);
    EXPECT_EQ(CapturedLog::count(SeverityError,
                                 "The fifo " + path + " could not be made again: No such file or directory"),
              1U);
    ASSERT_EQ(::write(hung.get(), "text", 4), 4);
    EXPECT_EQ(readOnce(), 4);
    hung.reset();
    EXPECT_EQ(readOnce(), -1);
}

// The reader's thread as the daemon stops it.
void* readForEver(void* argument) {
    keywarden::Cancellation::prepareThread();
    auto& self = *static_cast<std::pair<std::string, std::atomic<long>>*>(argument);
    FifoReader reader(Folder::at(self.first, Folder::Owner::Ours), "fifo", kMode, kGroup, {10000, 60000});
    bool usable = reader.open();
    while (usable) {
        std::array<char, 64> chunk{};
        const ssize_t count = reader.read(chunk.data(), chunk.size());
        usable = count >= 0;
        self.second += count;
    }
    return nullptr;
}

TEST_F(FifoReaderTest, ThreeThousandStopsAtRandomMoments) {
    std::pair<std::string, std::atomic<long>> shared{sandbox.path(), 0};
    std::atomic<bool> done{false};
    std::thread writing([this, &done] {
        while (!done) {
            const UniqueFd end(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            if (end)
                static_cast<void>(!::write(end.get(), "text", 4));
            else
                std::this_thread::yield();
        }
    });
    std::mt19937 random(815);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same moments in every run
    std::uniform_int_distribution<int> pause(0, 300);
    Milliseconds worst(0);
    for (int i = 0; i < 3000; ++i) {
        pthread_t thread{};
        ASSERT_EQ(::pthread_create(&thread, nullptr, readForEver, &shared), 0);
        std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
        const auto start = std::chrono::steady_clock::now();
        ::pthread_cancel(thread);
        void* result = nullptr;
        ::pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        worst = std::max(worst,
                         std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - start));
    }
    done = true;
    writing.join();
    EXPECT_GT(shared.second, 1000);
    EXPECT_LT(worst, Milliseconds(1000));
    EXPECT_EQ(CapturedLog::dump(), "");
}

TEST_F(FifoReaderTest, ReaderOfAnEndlessTextCanBeStopped) {
    std::pair<std::string, std::atomic<long>> shared{sandbox.path(), 0};
    std::atomic<bool> done{false};
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, nullptr, readForEver, &shared), 0);
    std::thread writing([this, &done] {
        const UniqueFd end = writer();
        ::fcntl(end.get(), F_SETFL, O_NONBLOCK);
        const std::string text(4096, 'x');
        while (!done)
            static_cast<void>(!::write(end.get(), text.data(), text.size()));
    });
    while (shared.second < 100000)
        std::this_thread::sleep_for(Milliseconds(1));
    const auto start = std::chrono::steady_clock::now();
    ::pthread_cancel(thread);
    ::pthread_join(thread, nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - start, Milliseconds(1000));
    done = true;
    writing.join();
}

}  // namespace
