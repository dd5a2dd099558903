#include "support/Common.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/Debug.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestClock.h"

namespace {

using keywarden::Common;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::Sandbox;
using testsupport::TestClock;

using Lines = std::vector<LogLine>;

class CommonTest : public testing::Test {
  protected:
    CommonTest() { CapturedLog::clear(); }
    ~CommonTest() override { TestClock::reset(); }

    Sandbox sandbox;
};

TEST_F(CommonTest, DateIsOldOneSecondBeforeTheLimitAndSaidSo) {
    TestClock::set(946555199);
    EXPECT_TRUE(Common::isDateOld());
    EXPECT_EQ(
        CapturedLog::lines(),
        (Lines{{keywarden::SeverityNotice,
                "Current system time 'Thu Dec 30 11:59:59 1999\n' is beyond the allowed lower limit of time "
                "'Thu Dec 30 12:00:00 1999\n'."}}));
}

TEST_F(CommonTest, DateIsNotOldAtTheLimitAndNothingIsSaid) {
    TestClock::set(946555200);
    EXPECT_FALSE(Common::isDateOld());
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(CommonTest, DateIsOldAtTheEpoch) {
    TestClock::set(0);
    EXPECT_TRUE(Common::isDateOld());
    EXPECT_TRUE(CapturedLog::containsPart("Current system time 'Thu Jan  1 00:00:00 1970\n' is"));
}

TEST_F(CommonTest, DateBeforeTheEpochIsNotOld) {
    TestClock::set(-1);
    EXPECT_FALSE(Common::isDateOld());
    TestClock::set(INT64_MIN + 1);
    EXPECT_FALSE(Common::isDateOld());
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(CommonTest, RemovingAFileOrAnEmptyFolderIsSilent) {
    const std::string file = sandbox.write("folder/file", "x");
    EXPECT_EQ(Common::removeFile(file), 0);
    EXPECT_FALSE(Sandbox::exists(file));
    EXPECT_EQ(Common::removeDir(sandbox.path("folder")), 0);
    EXPECT_FALSE(Sandbox::exists(sandbox.path("folder")));
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(CommonTest, RemovingOrRenamingWhatIsMissingFailsSilently) {
    const std::string missing = sandbox.path("missing");
    EXPECT_EQ(Common::removeFile(missing), -1);
    EXPECT_EQ(Common::removeDir(missing), -1);
    EXPECT_EQ(Common::renameFile(missing, sandbox.path("other")), -1);
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(CommonTest, RemovingAFullFolderFailsWithAnError) {
    sandbox.write("folder/file", "x");
    const std::string folder = sandbox.path("folder");
    EXPECT_EQ(Common::removeFile(folder), -1);
    EXPECT_EQ(Common::removeDir(folder), -1);
    EXPECT_EQ(
        CapturedLog::lines(),
        (Lines{{keywarden::SeverityError, "Failed to remove file '" + folder + "' : Directory not empty"},
               {keywarden::SeverityError,
                "Failed to remove directory '" + folder + "' : Directory not empty"}}));
    EXPECT_TRUE(Sandbox::exists(folder + "/file"));
}

TEST_F(CommonTest, RemovingBelowAFileIsAnError) {
    const std::string file = sandbox.write("file", "x");
    EXPECT_EQ(Common::removeFile(file + "/a"), -1);
    EXPECT_TRUE(CapturedLog::contains(keywarden::SeverityError,
                                      "Failed to remove file '" + file + "/a' : Not a directory"));
}

TEST_F(CommonTest, RenamingMovesTheFileOverTheOldOne) {
    const std::string from = sandbox.write("from", "new");
    const std::string to = sandbox.write("to", "old");
    EXPECT_EQ(Common::renameFile(from, to), 0);
    EXPECT_EQ(Sandbox::read(to), "new");
    EXPECT_FALSE(Sandbox::exists(from));
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

TEST_F(CommonTest, RenamingAFolderOntoAFileFailsWithAnError) {
    sandbox.write("folder/file", "x");
    const std::string from = sandbox.path("folder");
    const std::string to = sandbox.write("to", "old");
    EXPECT_EQ(Common::renameFile(from, to), -1);
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{keywarden::SeverityError,
                      "Failed to rename file '" + from + "' to '" + to + "' : Not a directory"}}));
    EXPECT_EQ(Sandbox::read(to), "old");
}

TEST(DebugTrace, LineGoesToStandardErrorOnlyWhileDebugging) {
    CapturedLog::clear();
    EXPECT_EQ(testsupport::standardErrorOf([] { keywarden::debugTrace("hidden"); }), "");
    keywarden::gDebug = true;
    EXPECT_EQ(testsupport::standardErrorOf([] { keywarden::debugTrace("shown %s"); }), "shown %s\n");
    keywarden::gDebug = false;
    EXPECT_EQ(CapturedLog::lines(), Lines{});
}

}  // namespace
