#include "support/FileWriter.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/Accounts.h"
#include "support/FileWriteError.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::FileAttributes;
using keywarden::FileWriteError;
using keywarden::FileWriter;
using keywarden::groupIdOf;
using keywarden::UniqueFd;
using keywarden::userIdOf;
using testsupport::inChild;
using testsupport::Sandbox;

FileAttributes attributes(mode_t mode, const std::string& group = "", const std::string& user = "") {
    FileAttributes wanted;
    wanted.mode = mode;
    wanted.group = group;
    wanted.user = user;
    return wanted;
}

FileAttributes inOwnFolder() {
    FileAttributes wanted;
    wanted.inOwnFolder = true;
    return wanted;
}

struct stat look(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        throw std::runtime_error("cannot stat " + path);
    return info;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

using Names = std::vector<std::string>;

/// "<kind> <errno> <text>" of what an action throws.
std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const FileWriteError& error) {
        return "write " + std::to_string(error.errorNumber()) + " " + error.what();
    } catch (const std::runtime_error& error) {
        return std::string("rights ") + error.what();
    }
    return "nothing";
}

std::string numbered(int error) {
    return "write " + std::to_string(error) + " ";
}

/// The names that one kind of event brought in a folder, in order.
class FolderEvents {
  public:
    FolderEvents(const std::string& folder, std::uint32_t kind) : queue_(::inotify_init1(IN_NONBLOCK)) {
        if (::inotify_add_watch(queue_.get(), folder.c_str(), kind) < 0)
            throw std::runtime_error("cannot watch " + folder);
    }

    Names names() {
        Names found;
        alignas(inotify_event) std::array<char, 65536> buffer{};
        for (ssize_t size = 0; (size = ::read(queue_.get(), buffer.data(), buffer.size())) > 0;)
            for (const char* at = buffer.data(); at < buffer.data() + size;) {
                const auto* const event = reinterpret_cast<const inotify_event*>(at);
                found.emplace_back(event->name);
                at += sizeof(inotify_event) + event->len;
            }
        return found;
    }

  private:
    UniqueFd queue_;
};

TEST(FileWriter, WritesContentModeGroupAndOwner) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("file");
    const std::string content("a\0b\nc", 5);
    FileWriter::write(path, content, attributes(0640, "adm", "daemon"));
    EXPECT_EQ(Sandbox::read(path), content);
    EXPECT_EQ(look(path).st_mode, S_IFREG | 0640U);
    EXPECT_EQ(look(path).st_gid, groupIdOf("adm"));
    EXPECT_EQ(look(path).st_uid, userIdOf("daemon"));
    EXPECT_EQ(namesIn(sandbox.path()), Names{"file"});
}

TEST(FileWriter, ModeDoesNotDependOnTheMask) {
    const Sandbox sandbox;
    const mode_t before = ::umask(0077);
    FileWriter::write(sandbox.path("closed"), "x", attributes(0666));
    ::umask(0);
    FileWriter::write(sandbox.path("open"), "x", attributes(0600));
    ::umask(before);
    EXPECT_EQ(Sandbox::mode(sandbox.path("closed")), 0666U);
    EXPECT_EQ(Sandbox::mode(sandbox.path("open")), 0600U);
}

TEST(FileWriter, UnknownNamesLeaveTheWritersOwn) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("file");
    FileWriter::write(path, "x", attributes(0644, "no-such-group", "no-such-user"));
    EXPECT_EQ(look(path).st_gid, ::getegid());
    EXPECT_EQ(look(path).st_uid, ::geteuid());
}

TEST(FileWriter, ReplacesTheWholeOldFile) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("file", std::string(5000, 'x'), 0777);
    FileWriter::write(path, "", attributes(0640));
    EXPECT_EQ(Sandbox::read(path), "");
    EXPECT_EQ(Sandbox::mode(path), 0640U);
}

TEST(FileWriter, WritesMegabytes) {
    const Sandbox sandbox;
    std::string content;
    for (int i = 0; i < 600000; ++i)
        content += std::to_string(i) + "\n";
    FileWriter::write(sandbox.path("file"), content, attributes(0600));
    EXPECT_EQ(Sandbox::read(sandbox.path("file")), content);
}

TEST(FileWriter, WritesIntoTheWorkingFolder) {
    const Sandbox sandbox;
    inChild([&sandbox] {
        std::filesystem::current_path(sandbox.path());
        FileWriter::write("file", "here", attributes(0644));
        return std::string();
    });
    EXPECT_EQ(Sandbox::read(sandbox.path("file")), "here");
}

TEST(FileWriter, IsNeverWiderThanItsFinalRights) {
    const Sandbox sandbox;
    const mode_t before = ::umask(0);
    const auto gid = groupIdOf("adm");
    std::atomic<bool> done{false};
    std::atomic<int> looks{0};
    std::string tooWide;
    std::thread watcher([&] {
        while (!done)
            for (const std::string& name : namesIn(sandbox.path())) {
                struct stat info {};
                if (::lstat(sandbox.path(name).c_str(), &info) != 0)
                    continue;
                ++looks;
                const mode_t mode = info.st_mode & 07777U;
                const bool forNobodyElse = mode == 0600;
                const bool asInTheEnd = mode == 0640 && info.st_gid == gid;
                if (!forNobodyElse && !asInTheEnd)
                    tooWide = name + " " + std::to_string(mode) + " " + std::to_string(info.st_gid);
                // Text comes only when the rights are final.
                if (info.st_size != 0 && !asInTheEnd)
                    tooWide = name + " was written too early";
            }
    });
    for (int i = 0; i < 60 || (looks < 100 && i < 4000); ++i)
        FileWriter::write(sandbox.path("key"), std::string(20000, 'x'), attributes(0640, "adm"));
    done = true;
    watcher.join();
    ::umask(before);
    EXPECT_EQ(tooWide, "");
    EXPECT_GE(looks, 100);
}

TEST(FileWriter, ReadersMeetOldOrNewButNothingBetween) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("file");
    const std::array<std::string, 2> contents{std::string(200000, 'a'), std::string(100000, 'b')};
    FileWriter::write(path, contents[0], attributes(0644));
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done) {
            const std::string content = Sandbox::read(path);
            ++reads;
            torn += content != contents[0] && content != contents[1] ? 1 : 0;
        }
    });
    // On a busy machine the reader comes to its turn late.
    for (std::size_t i = 0; i < 40 || (reads < 20 && i < 4000); ++i)
        FileWriter::write(path, contents[i % 2], attributes(0644));
    done = true;
    reader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GE(reads, 20);
}

TEST(FileWriter, FolderInThePlaceOfTheFileStays) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("file");
    sandbox.write("file/inside", "old");
    EXPECT_EQ(failureOf([&path] { FileWriter::write(path, "new", attributes(0644)); }),
              numbered(EISDIR) + "Impossible to put in place '" + path + "': Is a directory");
    EXPECT_EQ(Sandbox::read(sandbox.path("file/inside")), "old");
    EXPECT_EQ(namesIn(sandbox.path()), Names{"file"}) << "the temporary file is gone";
}

TEST(FileWriter, MissingFolderFails) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("none/file");
    EXPECT_EQ(
        failureOf([&path] { FileWriter::write(path, "new", attributes(0644)); }),
        numbered(ENOENT) + "Impossible to open the folder of '" + path + "': No such file or directory");
}

TEST(FileWriter, FolderThatMayNotBeWrittenKeepsTheOldFile) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("file", "old", 0666);
    EXPECT_EQ(inChild([&path] {
                  testsupport::becomeNobody();
                  return failureOf([&path] { FileWriter::write(path, "new", attributes(0644)); });
              }),
              numbered(EACCES) + "Impossible to create '" + path + "': Permission denied");
    EXPECT_EQ(Sandbox::read(path), "old");
    EXPECT_EQ(namesIn(sandbox.path()), Names{"file"});
}

TEST(FileWriter, FolderThatMayBeWrittenButNotListedIsWritten) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("box/file");
    std::filesystem::create_directory(sandbox.path("box"));
    ASSERT_EQ(::chmod(sandbox.path("box").c_str(), 0733), 0);
    EXPECT_EQ(inChild([&path] {
                  testsupport::becomeNobody();
                  return failureOf([&path] { FileWriter::write(path, "new", attributes(0644)); });
              }),
              "nothing");
    EXPECT_EQ(Sandbox::read(path), "new");
}

// A file system that is full and a write that ends half-way look the same to the writer.
std::string writeTooMuch(const std::string& path) {
    static_cast<void>(::signal(SIGXFSZ, SIG_IGN));
    const rlimit limit{1000, 1000};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    return failureOf([&path] { FileWriter::write(path, std::string(5000, 'x'), attributes(0644)); });
}

TEST(FileWriter, WriteThatEndsHalfWayKeepsTheOldFile) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("file", "old");
    EXPECT_EQ(inChild([&path] { return writeTooMuch(path); }),
              numbered(EFBIG) + "Impossible to write '" + path + "': File too large");
    EXPECT_EQ(Sandbox::read(path), "old");
    EXPECT_EQ(namesIn(sandbox.path()), Names{"file"});
}

TEST(FileWriter, GroupThatMayNotBeGivenFails) {
    const Sandbox sandbox;
    ASSERT_EQ(::chmod(sandbox.path().c_str(), 0777), 0);
    const std::string path = sandbox.path("file");
    EXPECT_EQ(inChild([&path] {
                  testsupport::becomeNobody();
                  return failureOf([&path] { FileWriter::write(path, "new", attributes(0644, "adm")); });
              }),
              "rights Runtime error caught while changing group for file '" + path +
                  "': Impossible to change the group for " + path);
    EXPECT_EQ(namesIn(sandbox.path()), Names{});
}

TEST(FileWriter, OwnerThatMayNotBeGivenFails) {
    const Sandbox sandbox;
    ASSERT_EQ(::chmod(sandbox.path().c_str(), 0777), 0);
    const std::string path = sandbox.path("file");
    EXPECT_EQ(inChild([&path] {
                  testsupport::becomeNobody();
                  return failureOf([&path] { FileWriter::write(path, "new", attributes(0644, "", "root")); });
              }),
              "rights Impossible to change the user for " + path);
    EXPECT_EQ(namesIn(sandbox.path()), Names{});
}

TEST(FileWriter, LinkIsReplacedAndNotFollowed) {
    const Sandbox sandbox;
    const std::string victim = sandbox.write("victim", "keep me", 0600);
    const std::string path = sandbox.path("file");
    std::filesystem::create_symlink(victim, path);
    FileWriter::write(path, "new", attributes(0666));
    EXPECT_EQ(look(path).st_mode, S_IFREG | 0666U);
    EXPECT_EQ(Sandbox::read(path), "new");
    EXPECT_EQ(Sandbox::read(victim), "keep me");
    EXPECT_EQ(Sandbox::mode(victim), 0600U);
}

TEST(FileWriter, NamesOfEarlierTemporariesArePassedOver) {
    const Sandbox sandbox;
    const std::string victim = sandbox.write("victim", "keep me", 0600);
    FolderEvents made(sandbox.path(), IN_CREATE);
    FileWriter::write(sandbox.path("file"), "first", attributes(0666));
    const Names names = made.names();
    ASSERT_EQ(names.size(), 1U);
    // ".file.<process>.<count>.new"
    const std::string start = ".file." + std::to_string(::getpid()) + ".";
    ASSERT_EQ(names[0].substr(0, start.size()), start);
    const unsigned long count = std::stoul(names[0].substr(start.size()));
    for (unsigned long next = count + 1; next <= count + 3; ++next)
        std::filesystem::create_symlink(victim, sandbox.path(start + std::to_string(next) + ".new"));
    FileWriter::write(sandbox.path("file"), "second", attributes(0666));
    EXPECT_EQ(Sandbox::read(sandbox.path("file")), "second");
    EXPECT_EQ(Sandbox::read(victim), "keep me");
    EXPECT_EQ(Sandbox::mode(victim), 0600U);
    EXPECT_EQ(namesIn(sandbox.path()).size(), 5U) << "they are not ours to remove";
}

TEST(FileWriter, OwnFolderIsWritten) {
    const Sandbox sandbox;
    FileWriter::write(sandbox.path("file"), "new", inOwnFolder());
    EXPECT_EQ(Sandbox::read(sandbox.path("file")), "new");
}

TEST(FileWriter, LinkInThePlaceOfAnOwnFolderIsRefused) {
    const Sandbox sandbox;
    std::filesystem::create_directory(sandbox.path("real"));
    std::filesystem::create_directory_symlink(sandbox.path("real"), sandbox.path("store"));
    for (const char* slashes : {"/", "//", "///"}) {
        const std::string path = sandbox.path("store") + slashes + "file";
        EXPECT_EQ(failureOf([&path] { FileWriter::write(path, "secret", inOwnFolder()); }),
                  numbered(ENOTDIR) + "Impossible to open the folder of '" + path + "': Not a directory");
    }
    EXPECT_EQ(namesIn(sandbox.path("real")), Names{});
    FileWriter::write(sandbox.path("store/file"), "no secret", attributes(0644));
    EXPECT_EQ(Sandbox::read(sandbox.path("real/file")), "no secret");
}

TEST(FileWriter, ForeignFolderIsRefusedAsAnOwnOne) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("store/file");
    std::filesystem::create_directory(sandbox.path("store"));
    ASSERT_EQ(::chown(sandbox.path("store").c_str(), *userIdOf("daemon"), static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(failureOf([&path] { FileWriter::write(path, "secret", inOwnFolder()); }),
              numbered(EPERM) + "The folder does not belong to the daemon user, refusing to write '" + path +
                  "': Operation not permitted");
    EXPECT_EQ(namesIn(sandbox.path("store")), Names{});
}

TEST(FileWriter, FolderThatWasGoodEnoughOnceIsLookedAtAgainForASecret) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("store/file");
    std::filesystem::create_directory(sandbox.path("store"));
    ASSERT_EQ(::chown(sandbox.path("store").c_str(), *userIdOf("daemon"), static_cast<gid_t>(-1)), 0);
    FileWriter writer;
    writer.stage(path, "no secret", attributes(0644));
    EXPECT_EQ(failureOf([&] { writer.stage(path, "secret", inOwnFolder()); }).substr(0, 8),
              numbered(EPERM).substr(0, 8));
}

TEST(FileWriter, CommitRenamesInStagingOrder) {
    const Sandbox sandbox;
    FileWriter writer;
    for (const char* name : {"c", "a", "b"})
        writer.stage(sandbox.path(name), name, attributes(0644));
    EXPECT_FALSE(Sandbox::exists(sandbox.path("c")));
    FolderEvents renamed(sandbox.path(), IN_MOVED_TO);
    writer.commit();
    EXPECT_EQ(renamed.names(), (Names{"c", "a", "b"}));
    EXPECT_EQ(namesIn(sandbox.path()), (Names{"a", "b", "c"}));
}

TEST(FileWriter, CommitGoesToTheFolderThatWasStagedInto) {
    const Sandbox sandbox;
    std::filesystem::create_directory(sandbox.path("store"));
    FileWriter writer;
    writer.stage(sandbox.path("store/key"), "secret", inOwnFolder());
    std::filesystem::rename(sandbox.path("store"), sandbox.path("moved"));
    std::filesystem::create_directory(sandbox.path("store"));
    writer.commit();
    EXPECT_EQ(namesIn(sandbox.path("store")), Names{});
    EXPECT_EQ(namesIn(sandbox.path("moved")), Names{"key"});
}

TEST(FileWriter, CommitThatFailsLeavesTheFilesBeforeAndNoneAfter) {
    const Sandbox sandbox;
    sandbox.write("b/inside", "");
    sandbox.write("c", "old");
    {
        FileWriter writer;
        for (const char* name : {"a", "b", "c"})
            writer.stage(sandbox.path(name), "new", attributes(0644));
        EXPECT_EQ(failureOf([&writer] { writer.commit(); }).substr(0, 8), "write 21");
    }
    EXPECT_EQ(namesIn(sandbox.path()), (Names{"a", "b", "c"}));
    EXPECT_EQ(Sandbox::read(sandbox.path("a")), "new");
    EXPECT_EQ(Sandbox::read(sandbox.path("c")), "old");
}

TEST(FileWriter, WhatIsNotCommittedLeavesNoTrace) {
    const Sandbox sandbox;
    sandbox.write("a", "old");
    {
        FileWriter writer;
        writer.stage(sandbox.path("a"), "new", attributes(0644));
        writer.stage(sandbox.path("b"), "new", attributes(0644));
        EXPECT_EQ(namesIn(sandbox.path()).size(), 3U);
    }
    EXPECT_EQ(namesIn(sandbox.path()), Names{"a"});
    EXPECT_EQ(Sandbox::read(sandbox.path("a")), "old");
}

TEST(FileWriter, FileThatCouldNotBeStagedIsNotCommittedWithTheOthers) {
    const Sandbox sandbox;
    sandbox.write("big", "old");
    const std::string failure = inChild([&sandbox] {
        static_cast<void>(::signal(SIGXFSZ, SIG_IGN));
        const rlimit limit{1000, 1000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        FileWriter writer;
        writer.stage(sandbox.path("small"), "new", attributes(0644));
        std::string text =
            failureOf([&] { writer.stage(sandbox.path("big"), std::string(5000, 'x'), attributes(0644)); });
        writer.commit();
        return text;
    });
    EXPECT_EQ(failure, numbered(EFBIG) + "Impossible to write '" + sandbox.path("big") + "': File too large");
    EXPECT_EQ(Sandbox::read(sandbox.path("big")), "old");
    EXPECT_EQ(Sandbox::read(sandbox.path("small")), "new");
    EXPECT_EQ(namesIn(sandbox.path()), (Names{"big", "small"}));
}

}  // namespace
