#include "support/Journal.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "support/FileTransaction.h"
#include "support/FileWriteError.h"
#include "support/TemporaryFile.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::FileAttributes;
using keywarden::FileTransaction;
using keywarden::FileWriteError;
using keywarden::Journal;
using keywarden::SeverityError;
using keywarden::SeverityNotice;
using keywarden::targetOfTemporary;
using testsupport::CapturedLog;
using testsupport::Sandbox;

using Names = std::vector<std::string>;

class Journalled : public testing::Test {
  protected:
    Journalled() {
        std::filesystem::create_directories(sandbox_.path("store/cached"));
        CapturedLog::clear();
    }

    [[nodiscard]] std::string path(const std::string& name) const { return sandbox_.path("store/" + name); }
    [[nodiscard]] Names namesIn(const std::string& folder) const {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(path(folder)))
            if (entry.is_regular_file() || entry.is_symlink())
                names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    /// As a run leaves it that is cut short behind its journal.
    void leave(const Journal::Steps& steps) const {
        for (const Journal::Step& step : steps)
            if (!step.temporary.empty())
                sandbox_.write("store/" + std::string(step.folder == 0 ? "" : "cached/") + step.temporary,
                               "new " + step.name, 0600);
        leaveText(Journal::textOf({steps, {}}));
    }
    void leaveText(const std::string& text, unsigned mode = 0600) const {
        sandbox_.write("store/cached/.journal", text, mode);
    }
    void expectRefused(const std::string& reason) {
        journal_.recover();
        EXPECT_TRUE(CapturedLog::contains(
            SeverityError, "The journal '" + path("cached") + "/.journal' is refused and removed: " + reason))
            << CapturedLog::dump();
        EXPECT_FALSE(Sandbox::exists(path("cached/.journal")));
    }

    Sandbox sandbox_;
    Journal journal_{{sandbox_.path("store/"), sandbox_.path("store/cached")}};
};

const Journal::Steps kSteps = {{0, ".key.7.0.new", "key"},
                               {0, ".cert.7.1.new", "cert"},
                               {1, ".active.7.2.new", "active"},
                               {0, "", "old"}};

TEST_F(Journalled, TextIsReadBack) {
    const Journal::Steps steps = journal_.parse(Journal::textOf({kSteps, {}})).steps;
    ASSERT_EQ(steps.size(), kSteps.size());
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(steps[i].folder, kSteps[i].folder);
        EXPECT_EQ(steps[i].temporary, kSteps[i].temporary);
        EXPECT_EQ(steps[i].name, kSteps[i].name);
    }
    EXPECT_EQ(Journal::textOf({{{0, "", "a"}}, {}}), "keyward journal 1\nremove 0 a\nend 25727d5a\n");
}

TEST_F(Journalled, InterruptedChangeIsBroughtToItsEnd) {
    sandbox_.write("store/cert", "old cert");
    sandbox_.write("store/old", "");
    leave(kSteps);
    journal_.recover();
    EXPECT_EQ(namesIn(""), (Names{"cert", "key"}));
    EXPECT_EQ(namesIn("cached"), Names{"active"});
    EXPECT_EQ(Sandbox::read(path("cert")), "new cert");
    EXPECT_TRUE(CapturedLog::contains(
        SeverityNotice,
        "An interrupted change of the store '" + sandbox_.path("store") + "' has been brought to its end."))
        << CapturedLog::dump();
}

TEST_F(Journalled, StepsThatAreDoneAreNotDoneAgain) {
    leave(kSteps);
    std::filesystem::rename(path(".key.7.0.new"), path("key"));
    journal_.recover();
    EXPECT_EQ(Sandbox::read(path("key")), "new key");
    EXPECT_EQ(Sandbox::read(path("cert")), "new cert");
}

TEST_F(Journalled, WithoutAJournalTheTemporariesAreRemovedAndNothingIsSaid) {
    sandbox_.write("store/.key.7.0.new", "secret", 0600);
    sandbox_.write("store/cached/..journal.7.1.new", "half", 0600);
    sandbox_.write("store/.not.ours.new", "");
    journal_.recover();
    EXPECT_EQ(namesIn(""), Names{".not.ours.new"});
    EXPECT_EQ(namesIn("cached"), Names{});
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(Journalled, EveryByteThatIsDamagedOrMissingIsNoticed) {
    const std::string whole = Journal::textOf({kSteps, {}});
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::string damaged = whole;
        damaged[i] = static_cast<char>(damaged[i] ^ 1);
        EXPECT_THROW(static_cast<void>(journal_.parse(damaged)), std::runtime_error) << i;
        EXPECT_THROW(static_cast<void>(journal_.parse(whole.substr(0, i))), std::runtime_error) << i;
    }
}

TEST_F(Journalled, DamagedOneIsRefusedAndWhatIsInPlaceStays) {
    sandbox_.write("store/cert", "old cert");
    leave(kSteps);
    leaveText(Journal::textOf({kSteps, {}}).substr(3));
    expectRefused("Its checksum is wrong");
    EXPECT_EQ(namesIn(""), Names{"cert"});
    EXPECT_EQ(Sandbox::read(path("cert")), "old cert");
}

TEST_F(Journalled, NamesOutsideOfTheStoreAreRefused) {
    sandbox_.write("victim", "keep me");
    const std::string reason = "A line in it names no file of the store";
    const std::vector<Journal::Step> foreign = {{0, "", "../victim"},
                                                {0, "", sandbox_.path("victim")},
                                                {0, "", ".."},
                                                {0, "", ".journal"},
                                                {2, "", "victim"},
                                                {0, ".a.7.0.new", "b"},
                                                {0, "../.victim.7.0.new", "victim"},
                                                {0, ".x/../../victim.7.0.new", "x/../../victim"}};
    for (const Journal::Step& step : foreign) {
        leaveText(Journal::textOf({{step}, {}}));
        expectRefused(reason);
    }
    EXPECT_EQ(Sandbox::read(sandbox_.path("victim")), "keep me");
}

TEST_F(Journalled, OneThatOthersCanReadOrThatIsALinkIsRefused) {
    sandbox_.write("store/old", "keep me");
    leaveText(Journal::textOf({{{0, "", "old"}}, {}}), 0644);
    expectRefused("It is not the daemon user's alone");
    leaveText(Journal::textOf({{{0, "", "old"}}, {}}));
    ASSERT_EQ(::chown(path("cached/.journal").c_str(), 65534, 65534), 0);
    expectRefused("It is not the daemon user's alone");
    sandbox_.write("elsewhere", Journal::textOf({{{0, "", "old"}}, {}}), 0600);
    ASSERT_EQ(::symlink(sandbox_.path("elsewhere").c_str(), path("cached/.journal").c_str()), 0);
    expectRefused("Too many levels of symbolic links");
    EXPECT_TRUE(Sandbox::exists(path("old")));
    EXPECT_TRUE(Sandbox::exists(sandbox_.path("elsewhere")));
}

TEST_F(Journalled, OneThatCannotBeReadNowIsKept) {
    leave(kSteps);
    EXPECT_TRUE(journal_.isUnfinished());
    const std::string log = testsupport::inChild([this] {
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        journal_.recover();
        return CapturedLog::dump();
    });
    EXPECT_NE(log.find("could not be finished: Impossible to open '" + path("cached") + "/.journal': "),
              std::string::npos)
        << log;
    EXPECT_TRUE(Sandbox::exists(path("cached/.journal")));
    journal_.recover();
    EXPECT_EQ(Sandbox::read(path("cert")), "new cert");
}

TEST_F(Journalled, ChangeThatCannotBeFinishedStaysJournalledWithItsFiles) {
    leave(kSteps);
    std::filesystem::create_directories(path("cert"));
    journal_.recover();
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, "An interrupted change of the store '" + sandbox_.path("store") +
                                                 "' could not be finished: Impossible to put in place '" +
                                                 path("cert") + "': Is a directory"))
        << CapturedLog::dump();
    EXPECT_TRUE(Sandbox::exists(path(".cert.7.1.new")));
    std::filesystem::remove(path("cert"));
    journal_.recover();
    EXPECT_EQ(Sandbox::read(path("cert")), "new cert");
    EXPECT_FALSE(Sandbox::exists(path("cached/.journal")));
}

TEST_F(Journalled, MissingStoreIsNoMatter) {
    Journal({sandbox_.path("none"), sandbox_.path("none/cached")}).recover();
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

FileAttributes readable() {
    FileAttributes attributes;
    attributes.inOwnFolder = true;
    return attributes;
}

TEST_F(Journalled, StandsForItsStepsWhileTheyAreDoneAndIsGoneAfterwards) {
    sandbox_.write("store/old", "");
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.stage(path("cached/b"), "b", readable());
    change.remove(path("old"));
    std::string during;
    change.call([&] {
        during = Sandbox::read(path("cached/.journal"));
        EXPECT_EQ(Sandbox::mode(path("cached/.journal")), 0600U);
        EXPECT_FALSE(Sandbox::exists(path("old")));
    });
    EXPECT_FALSE(Sandbox::exists(path("a")));
    change.commit();
    const Journal::Steps steps = journal_.parse(during).steps;
    ASSERT_EQ(steps.size(), 3U);
    EXPECT_EQ(steps[0].name + steps[1].name + steps[2].name, "abold");
    EXPECT_EQ(namesIn(""), Names{"a"});
    EXPECT_EQ(namesIn("cached"), Names{"b"});
}

TEST_F(Journalled, ChangeOfOneFileNeedsNoJournal) {
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.call([this] { EXPECT_FALSE(journal_.stands()); });
    change.commit();
    EXPECT_EQ(namesIn(""), Names{"a"});
}

TEST_F(Journalled, PairWhoseSecondFileCannotBePutInPlaceKeepsItsFirst) {
    sandbox_.write("store/a", "earlier a");
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.stage(path("b"), "b", readable());
    change.together(path("a"), path("b"));
    change.tell({"new", "a"});
    std::filesystem::create_directories(path("b"));
    EXPECT_THROW(change.commit(), FileWriteError);
    EXPECT_FALSE(journal_.stands());
    EXPECT_TRUE(journal_.toBeTold().empty());
    EXPECT_EQ(Sandbox::read(path("a")), "earlier a");
}

TEST_F(Journalled, PairWithoutAnEarlierFirstFileIsLeftWithoutOne) {
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.stage(path("b"), "b", readable());
    change.together(path("a"), path("b"));
    std::filesystem::create_directories(path("b"));
    EXPECT_THROW(change.commit(), FileWriteError);
    EXPECT_FALSE(Sandbox::exists(path("a")));
}

TEST_F(Journalled, StepsBeforeAFailureStayDoneWithoutAPair) {
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.stage(path("b"), "b", readable());
    std::filesystem::create_directories(path("b"));
    EXPECT_THROW(change.commit(), FileWriteError);
    EXPECT_FALSE(journal_.stands());
    EXPECT_EQ(Sandbox::read(path("a")), "a");
}

TEST_F(Journalled, EventStaysJournalledUntilItIsTold) {
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.tell({"new", "a.0"});
    change.commit();
    EXPECT_TRUE(journal_.stands());
    EXPECT_FALSE(journal_.isUnfinished());
    EXPECT_EQ(journal_.toBeTold(), (Journal::Events{{"new", "a.0"}}));
    journal_.told();
    EXPECT_FALSE(journal_.stands());
    EXPECT_TRUE(journal_.toBeTold().empty());
}

TEST_F(Journalled, EventOfARunThatEndedIsFoundByTheNext) {
    leaveText(Journal::textOf({{}, {{"revoke", "a.0", "b.0"}}}));
    journal_.recover();
    EXPECT_EQ(journal_.toBeTold(), (Journal::Events{{"revoke", "a.0", "b.0"}}));
    EXPECT_TRUE(journal_.stands());
    EXPECT_FALSE(journal_.isUnfinished());
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(Journalled, EventThatWasNotToldGoesWithTheNextChange) {
    leaveText(Journal::textOf({{}, {{"new", "a.0"}}}));
    journal_.recover();
    {
        FileTransaction change(journal_);
        change.stage(path("b"), "b", readable());
        change.tell({"new", "b.0"});
        change.commit();
    }
    Journal next({sandbox_.path("store/"), sandbox_.path("store/cached")});
    next.recover();
    EXPECT_EQ(next.toBeTold(), (Journal::Events{{"new", "a.0"}, {"new", "b.0"}}));
}

TEST_F(Journalled, FailedChangeKeepsTheEventsOfEarlierOnes) {
    leaveText(Journal::textOf({{}, {{"new", "a.0"}}}));
    journal_.recover();
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    change.stage(path("b"), "b", readable());
    change.tell({"new", "b.0"});
    std::filesystem::create_directories(path("b"));
    EXPECT_THROW(change.commit(), FileWriteError);
    Journal next({sandbox_.path("store/"), sandbox_.path("store/cached")});
    next.recover();
    EXPECT_EQ(next.toBeTold(), (Journal::Events{{"new", "a.0"}}));
}

TEST_F(Journalled, RemovalThatCannotBeDoneYetGoesWithTheNextChanges) {
    std::filesystem::create_directories(path("old/in the way"));
    leave({{0, "", "old"}});
    journal_.recover();
    EXPECT_TRUE(journal_.hasLeftOver());
    {
        FileTransaction change(journal_);
        change.stage(path("a"), "a", readable());
        change.commit();
    }
    std::filesystem::remove_all(path("old"));
    sandbox_.write("store/old", "");
    Journal next({sandbox_.path("store/"), sandbox_.path("store/cached")});
    next.recover();
    EXPECT_FALSE(Sandbox::exists(path("old")));
    EXPECT_FALSE(next.hasLeftOver());
    EXPECT_FALSE(next.stands());
}

TEST_F(Journalled, ChangeThatWritesTheFileAgainIsNotUndoneByAnEarlierRemoval) {
    std::filesystem::create_directories(path("old/in the way"));
    leave({{0, "", "old"}});
    journal_.recover();
    std::filesystem::remove_all(path("old"));
    FileTransaction change(journal_);
    change.stage(path("old"), "new", readable());
    change.commit();
    Journal next({sandbox_.path("store/"), sandbox_.path("store/cached")});
    next.recover();
    EXPECT_EQ(Sandbox::read(path("old")), "new");
}

TEST_F(Journalled, ChangeBringsAnUnfinishedOneToItsEndFirst) {
    leave(kSteps);
    FileTransaction change(journal_);
    EXPECT_EQ(Sandbox::read(path("cert")), "new cert");
    change.stage(path("cert"), "newer cert", readable());
    change.commit();
    EXPECT_EQ(Sandbox::read(path("cert")), "newer cert");
    EXPECT_FALSE(journal_.stands());
}

TEST_F(Journalled, NothingIsChangedWhileAnUnfinishedOneCannotBe) {
    leave(kSteps);
    std::filesystem::create_directories(path("cert"));
    FileTransaction change(journal_);
    change.stage(path("a"), "a", readable());
    EXPECT_THROW(change.commitAtAnyRate(), FileWriteError);
    EXPECT_FALSE(Sandbox::exists(path("a")));
    EXPECT_TRUE(Sandbox::exists(path(".cert.7.1.new")));
}

TEST_F(Journalled, WithoutRoomForAJournalNothingChangesUnlessItMust) {
    sandbox_.write("store/a", "");
    sandbox_.write("store/b", "");
    std::filesystem::create_directories(path("cached/.journal/in the way"));
    const auto removal = [this](auto commit) {
        FileTransaction change(journal_);
        change.remove(path("a"));
        change.remove(path("b"));
        commit(change);
    };
    EXPECT_THROW(removal([](FileTransaction& change) { change.commit(); }), FileWriteError);
    EXPECT_EQ(namesIn(""), (Names{"a", "b"}));
    removal([](FileTransaction& change) { change.commitAtAnyRate(); });
    EXPECT_EQ(namesIn(""), Names{});
}

TEST(TemporaryName, IsToldFromOthers) {
    EXPECT_EQ(targetOfTemporary(".7abc528d.0.key.123.4.new"), "7abc528d.0.key");
    EXPECT_EQ(targetOfTemporary("..journal.1.0.new"), ".journal");
    for (const char* name : {"", ".", ".new", ".a.new", ".a.1.new", ".a.1.b.new", ".a.1.2", "a.1.2.new",
                             ".a.1.2.old", ".a..2.new", ".a.1..new", ".1.2.new"})
        EXPECT_EQ(targetOfTemporary(name), "") << name;
}

TEST(TemporaryName, OnlyRegularFilesOfTheDaemonUserAreRemoved) {
    const Sandbox sandbox;
    sandbox.write(".a.1.2.new", "");
    sandbox.write(".b.1.2.new", "");
    sandbox.write(".c.1.2.new", "");
    ASSERT_EQ(::chown(sandbox.path(".c.1.2.new").c_str(), 65534, 65534), 0);
    std::filesystem::create_directory(sandbox.path(".d.1.2.new"));
    std::filesystem::create_symlink("/etc/passwd", sandbox.path(".e.1.2.new"));
    const auto folder = keywarden::Folder::at(sandbox.path(), keywarden::Folder::Owner::Ours);
    keywarden::removeTemporaries(*folder, "b");
    EXPECT_TRUE(Sandbox::exists(sandbox.path(".a.1.2.new")));
    EXPECT_FALSE(Sandbox::exists(sandbox.path(".b.1.2.new")));
    keywarden::removeTemporaries(*folder);
    EXPECT_FALSE(Sandbox::exists(sandbox.path(".a.1.2.new")));
    for (const char* name : {".c.1.2.new", ".d.1.2.new", ".e.1.2.new"})
        EXPECT_TRUE(Sandbox::exists(sandbox.path(name))) << name;
}

}  // namespace
