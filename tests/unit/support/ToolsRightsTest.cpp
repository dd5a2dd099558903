#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "support/Tools.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::Tools;
using testsupport::Sandbox;

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(none)";
}

struct stat statusOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info;
}

std::int64_t changeTime(const std::string& path) {
    const timespec time = statusOf(path).st_ctim;
    return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

/// The kernel stamps files with a clock of a few milliseconds.
void letTheFileClockMove() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

class ToolsRights : public testing::Test {
  protected:
    Sandbox sandbox;
    std::string file = sandbox.write("file", "x", 0640);
    std::string missing = sandbox.path("missing");
};

TEST_F(ToolsRights, RightsHoldTheFileTypeOwnerAndGroup) {
    ASSERT_EQ(::chown(file.c_str(), 6, 4), 0);
    const auto rights = Tools::getRights(file);
    EXPECT_EQ(rights.mode, 0100640U);
    EXPECT_EQ(rights.uid, 6U);
    EXPECT_EQ(rights.gid, 4U);
    EXPECT_EQ(Tools::getRights(sandbox.path()).mode, 0040755U);
}

TEST_F(ToolsRights, RightsOfAMissingFileFail) {
    EXPECT_EQ(failureOf([&] { static_cast<void>(Tools::getRights(missing)); }),
              "Impossible to open " + missing);
}

TEST_F(ToolsRights, ModeIsChanged) {
    Tools::changeMode(file, 0600);
    EXPECT_EQ(Sandbox::mode(file), 0600U);
    Tools::changeMode(file, 0);
    EXPECT_EQ(Sandbox::mode(file), 0U);
}

TEST_F(ToolsRights, ModeIsCutToPermissionSetIdAndStickyBits) {
    Tools::changeMode(file, 0177777);
    EXPECT_EQ(Sandbox::mode(file), 07777U);
    Tools::changeMode(file, 0104750);
    EXPECT_EQ(Sandbox::mode(file), 04750U);
}

TEST_F(ToolsRights, ModeThatMatchesDoesNotMoveTheChangeTime) {
    const auto before = changeTime(file);
    letTheFileClockMove();
    Tools::changeMode(file, 0640);
    Tools::changeMode(file, 0100640);
    EXPECT_EQ(changeTime(file), before);
    Tools::changeMode(file, 0644);
    EXPECT_NE(changeTime(file), before);
}

TEST_F(ToolsRights, ModeOfAMissingFileFails) {
    EXPECT_EQ(failureOf([&] { Tools::changeMode(missing, 0600); }),
              "Impossible to change mode for " + missing);
}

TEST_F(ToolsRights, ModeOfAnothersFileFails) {
    EXPECT_EQ(testsupport::inChild([&] {
                  testsupport::becomeNobody();
                  return failureOf([&] { Tools::changeMode(file, 0666); });
              }),
              "Impossible to change mode for " + file);
    EXPECT_EQ(Sandbox::mode(file), 0640U);
}

TEST_F(ToolsRights, UserIsChangedByNumberAndTheGroupStays) {
    ASSERT_EQ(::chown(file.c_str(), 0, 4), 0);
    Tools::changeUser(file, uid_t{6});
    EXPECT_EQ(statusOf(file).st_uid, 6U);
    EXPECT_EQ(statusOf(file).st_gid, 4U);
}

TEST_F(ToolsRights, UserIsChangedByName) {
    EXPECT_TRUE(Tools::changeUser(file, "daemon"));
    EXPECT_EQ(statusOf(file).st_uid, 1U);
}

TEST_F(ToolsRights, UnknownUserIsRefusedAndTheFileUntouched) {
    const auto before = changeTime(file);
    letTheFileClockMove();
    EXPECT_FALSE(Tools::changeUser(file, "no-such-user"));
    EXPECT_FALSE(Tools::changeUser(missing, "no-such-user"));
    EXPECT_EQ(changeTime(file), before);
    EXPECT_EQ(statusOf(file).st_uid, 0U);
}

TEST_F(ToolsRights, UserThatMatchesDoesNotMoveTheChangeTime) {
    const auto before = changeTime(file);
    letTheFileClockMove();
    Tools::changeUser(file, uid_t{0});
    EXPECT_TRUE(Tools::changeUser(file, "root"));
    EXPECT_EQ(changeTime(file), before);
    Tools::changeUser(file, uid_t{1});
    EXPECT_NE(changeTime(file), before);
}

TEST_F(ToolsRights, UserOfAMissingFileFails) {
    const std::string text = "Impossible to change the user for " + missing;
    EXPECT_EQ(failureOf([&] { Tools::changeUser(missing, uid_t{1}); }), text);
    EXPECT_EQ(failureOf([&] { Tools::changeUser(missing, "daemon"); }), text);
}

TEST_F(ToolsRights, GroupIsChangedByNumberAndTheUserStays) {
    ASSERT_EQ(::chown(file.c_str(), 6, 0), 0);
    Tools::changeGroup(file, gid_t{4});
    EXPECT_EQ(statusOf(file).st_uid, 6U);
    EXPECT_EQ(statusOf(file).st_gid, 4U);
}

TEST_F(ToolsRights, GroupIsChangedByName) {
    EXPECT_TRUE(Tools::changeGroup(file, "adm"));
    EXPECT_EQ(statusOf(file).st_gid, 4U);
}

TEST_F(ToolsRights, UnknownGroupIsRefusedAndTheFileUntouched) {
    const auto before = changeTime(file);
    letTheFileClockMove();
    EXPECT_FALSE(Tools::changeGroup(file, "no-such-group"));
    EXPECT_FALSE(Tools::changeGroup(missing, "no-such-group"));
    EXPECT_EQ(changeTime(file), before);
}

TEST_F(ToolsRights, GroupThatMatchesDoesNotMoveTheChangeTime) {
    const auto before = changeTime(file);
    letTheFileClockMove();
    Tools::changeGroup(file, gid_t{0});
    EXPECT_TRUE(Tools::changeGroup(file, "root"));
    EXPECT_EQ(changeTime(file), before);
    Tools::changeGroup(file, gid_t{4});
    EXPECT_NE(changeTime(file), before);
}

TEST_F(ToolsRights, GroupOfAMissingFileFails) {
    EXPECT_EQ(failureOf([&] { Tools::changeGroup(missing, gid_t{4}); }),
              "Impossible to change the group for " + missing);
}

TEST_F(ToolsRights, GroupByNameOfAMissingFileFailsWithTheWrappedText) {
    EXPECT_EQ(failureOf([&] { Tools::changeGroup(missing, "adm"); }),
              "Runtime error caught while changing group for file '" + missing +
                  "': Impossible to change the group for " + missing);
}

class ToolsCreateDirectory : public ToolsRights {
  protected:
    void SetUp() override { umask_ = ::umask(0); }
    void TearDown() override { ::umask(umask_); }

  private:
    mode_t umask_ = 0;
};

TEST_F(ToolsCreateDirectory, MissingFolderIsMadeWithTheMode) {
    Tools::createDirectory(missing, 0711);
    EXPECT_EQ(statusOf(missing).st_mode, 0040711U);
}

TEST_F(ToolsCreateDirectory, UmaskCountsForANewFolder) {
    ::umask(022);
    Tools::createDirectory(missing, 0777);
    EXPECT_EQ(Sandbox::mode(missing), 0755U);
}

TEST_F(ToolsCreateDirectory, ExistingFolderGetsTheModeAndKeepsItsContent) {
    ::umask(022);
    const std::string content = sandbox.write("folder/file", "x");
    Tools::createDirectory(sandbox.path("folder"), 0777);
    EXPECT_EQ(Sandbox::mode(sandbox.path("folder")), 0777U);
    EXPECT_EQ(Sandbox::read(content), "x");
}

TEST_F(ToolsCreateDirectory, ExistingFolderWithTheModeIsNotTouched) {
    Tools::createDirectory(missing, 0711);
    const auto before = changeTime(missing);
    letTheFileClockMove();
    Tools::createDirectory(missing, 0711);
    EXPECT_EQ(changeTime(missing), before);
}

TEST_F(ToolsCreateDirectory, AnothersFolderFailsWithTheTextAsSpelled) {
    ASSERT_EQ(::mkdir(missing.c_str(), 0755), 0);
    EXPECT_EQ(testsupport::inChild([&] {
                  testsupport::becomeNobody();
                  return failureOf([&] { Tools::createDirectory(missing, 0711); });
              }),
              "Caught runtime exception. Faied to change the mode. Reason: Impossible to change mode for " +
                  missing);
    EXPECT_EQ(Sandbox::mode(missing), 0755U);
}

}  // namespace
