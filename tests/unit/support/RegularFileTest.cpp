#include "support/RegularFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/stores/Failures.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::readRegularFile;
using testsupport::Sandbox;

std::string failureOf(const std::string& path) {
    return runtimeErrorOf([&path] { static_cast<void>(readRegularFile(path, 100)); });
}

TEST(RegularFile, BytesAreReadAsTheyAre) {
    const Sandbox sandbox;
    const std::string bytes("a\r\n\0\xff", 5);
    EXPECT_EQ(readRegularFile(sandbox.write("file", bytes), 100), bytes);
}

TEST(RegularFile, EmptyFileIsEmpty) {
    const Sandbox sandbox;
    EXPECT_EQ(readRegularFile(sandbox.write("file", ""), 0), "");
}

TEST(RegularFile, FileAsLargeAsTheLimitIsReadAndALargerOneIsRefused) {
    const Sandbox sandbox;
    const std::string content(40000, 'x');
    const std::string path = sandbox.write("file", content);
    EXPECT_EQ(readRegularFile(path, 40000), content);
    EXPECT_EQ(runtimeErrorOf([&path] { static_cast<void>(readRegularFile(path, 39999)); }),
              "Impossible to read the file '" + path + "': It is larger than 39999 bytes");
}

TEST(RegularFile, LinkToAFileIsFollowed) {
    const Sandbox sandbox;
    ASSERT_EQ(::symlink(sandbox.write("file", "text").c_str(), sandbox.path("link").c_str()), 0);
    EXPECT_EQ(readRegularFile(sandbox.path("link"), 100), "text");
}

TEST(RegularFile, MissingFileFails) {
    EXPECT_EQ(failureOf("/nowhere/file"),
              "Impossible to read the file '/nowhere/file': No such file or directory");
}

TEST(RegularFile, FolderFails) {
    const Sandbox sandbox;
    EXPECT_EQ(failureOf(sandbox.path()),
              "Impossible to read the file '" + sandbox.path() + "': It is not a regular file");
}

TEST(RegularFile, FifoIsRefusedWithoutWaitingForAWriter) {
    const Sandbox sandbox;
    const std::string fifo = sandbox.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(failureOf(fifo), "Impossible to read the file '" + fifo + "': It is not a regular file");
}

TEST(RegularFile, DeviceIsRefused) {
    EXPECT_EQ(failureOf("/dev/zero"), "Impossible to read the file '/dev/zero': It is not a regular file");
}

TEST(RegularFile, FileOfSomebodyElseFails) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("file", "text", 0600);
    const std::string failure = testsupport::inChild([&path] {
        testsupport::becomeNobody();
        return failureOf(path);
    });
    EXPECT_EQ(failure, "Impossible to read the file '" + path + "': Permission denied");
}

}  // namespace
