#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "support/Accounts.h"
#include "support/Debug.h"
#include "support/Tools.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::Tools;
using testsupport::Sandbox;

constexpr const char* kNotChecked = "NOT CHECKED: account databases of the test's own";

/// What `body` answers on a machine with these accounts alone.
std::optional<std::string> withAccounts(const std::string& passwd, const std::string& group,
                                        const std::function<std::string()>& body) {
    const Sandbox sandbox;
    const std::string users = sandbox.write("passwd", passwd);
    const std::string groups = sandbox.write("group", group);
    const std::string sources = sandbox.write("nsswitch.conf", "passwd: files\ngroup: files\n");
    const auto mounts = [&] {
        testsupport::mountOver(users, "/etc/passwd");
        testsupport::mountOver(groups, "/etc/group");
        if (Sandbox::exists("/etc/nsswitch.conf"))
            testsupport::mountOver(sources, "/etc/nsswitch.conf");
    };
    return testsupport::inPrivateMounts(mounts, body);
}

std::string yesOrNo(std::initializer_list<bool> answers) {
    std::string text;
    for (const bool answer : answers)
        text += answer ? 'y' : 'n';
    return text;
}

/// Group numbers, then what was traced.
std::string groupsAndTraces(const std::string& user) {
    std::string ids;
    keywarden::gDebug = true;
    const std::string traces = testsupport::standardErrorOf([&] {
        for (const unsigned id : Tools::getGroups(user))
            ids += std::to_string(id) + " ";
    });
    keywarden::gDebug = false;
    return ids + "|" + traces;
}

const std::string kUsers =
    "root:x:0:0::/:/bin/sh\n"
    "ann:x:500:500::/:/bin/sh\n"
    "joanna:x:501:500::/:/bin/sh\n";

const std::string kGroups =
    "root:x:0:\n"
    "ann:x:500:\n"
    "team:x:501:bob,joanna\n"
    "other:x:502:bob\n"
    "annex:x:503:\n"
    "exact:x:504:root,ann\n"
    "gone:x:505:ghost\n"
    "no group but ann\n";

TEST(ToolsAccounts, RootIsKnownByNameAndNumber) {
    EXPECT_EQ(Tools::getUserName(), "root");
    EXPECT_EQ(Tools::getUid(), 0U);
    EXPECT_EQ(Tools::getPid(), ::getpid());
}

TEST(ToolsAccounts, EffectiveUserCountsNotTheRealOne) {
    const std::string answer = testsupport::inChild([] {
        return ::seteuid(1) != 0 ? "refused" : Tools::getUserName() + std::to_string(Tools::getUid());
    });
    EXPECT_EQ(answer, "daemon1");
}

TEST(ToolsAccounts, UserWithoutAnEntryHasNoName) {
    const auto name =
        withAccounts("ann:x:500:500::/:/bin/sh\n", kGroups, [] { return "'" + Tools::getUserName() + "'"; });
    if (!name)
        GTEST_SKIP() << kNotChecked;
    EXPECT_EQ(*name, "''");
}

TEST(ToolsAccounts, ExistingAndMissingAccountsAreTold) {
    EXPECT_TRUE(Tools::isUserExist("daemon"));
    EXPECT_FALSE(Tools::isUserExist("no-such-user"));
    EXPECT_FALSE(Tools::isUserExist(""));
    EXPECT_TRUE(Tools::isGroupExist("adm"));
    EXPECT_FALSE(Tools::isGroupExist("no-such-group"));
    EXPECT_FALSE(Tools::isGroupExist(""));
}

TEST(ToolsAccounts, GroupNumberIsTraced) {
    keywarden::gDebug = true;
    gid_t id = 0;
    const std::string traces = testsupport::standardErrorOf([&id] { id = Tools::getGroupId("adm"); });
    keywarden::gDebug = false;
    EXPECT_EQ(id, 4U);
    EXPECT_EQ(traces, "Group Id: adm - 4\n");
}

TEST(ToolsAccounts, UnknownGroupHasNumber0AndNoTrace) {
    keywarden::gDebug = true;
    gid_t id = 1;
    const std::string traces =
        testsupport::standardErrorOf([&id] { id = Tools::getGroupId("no-such-group"); });
    keywarden::gDebug = false;
    EXPECT_EQ(id, 0U);
    EXPECT_EQ(traces, "");
}

TEST(ToolsAccounts, MemberIsWhoTheListNamesExactly) {
    const auto answers = withAccounts(kUsers, kGroups, [] {
        return yesOrNo({
            Tools::isUserMemberOfGroup("joanna", "team"),
            Tools::isUserMemberOfGroup("ann", "exact"),
            Tools::isUserMemberOfGroup("ann", "team"),    // part of "joanna"
            Tools::isUserMemberOfGroup("ann", "other"),   // not listed
            Tools::isUserMemberOfGroup("ann", "ann"),     // by the primary group alone
            Tools::isUserMemberOfGroup("ghost", "gone"),  // listed without an account
            Tools::isUserMemberOfGroup("ann", "no-such-one"),
            Tools::isUserMemberOfGroup("", "team"),
        });
    });
    if (!answers)
        GTEST_SKIP() << kNotChecked;
    EXPECT_EQ(*answers, "yynnnnnn");
}

TEST(ToolsAccounts, PrimaryGroupAloneIsNoMembershipOnThisMachine) {
    EXPECT_FALSE(Tools::isUserMemberOfGroup("daemon", "daemon"));
    EXPECT_FALSE(Tools::isUserMemberOfGroup("no-such-user", "daemon"));
    EXPECT_FALSE(Tools::isUserMemberOfGroup("daemon", "no-such-group"));
}

TEST(ToolsAccounts, MembersOfAVeryLongListAreFound) {
    std::string line = "many:x:600:first";
    for (int number = 0; number < 20000; ++number)
        line += ",member" + std::to_string(number);
    const auto answers = withAccounts(kUsers, line + ",ann\n", [] {
        const auto group = keywarden::findGroup("many");
        return yesOrNo({Tools::isUserMemberOfGroup("ann", "many"),
                        Tools::isUserMemberOfGroup("joanna", "many")}) +
               std::to_string(group ? group->members.size() : 0);
    });
    if (!answers)
        GTEST_SKIP() << kNotChecked;
    EXPECT_EQ(*answers, "yn20002");
}

TEST(ToolsAccounts, GroupsAreTheLinesThatHoldTheNameAnywhere) {
    const auto answer = withAccounts(kUsers, kGroups, [] { return groupsAndTraces("ann"); });
    if (!answer)
        GTEST_SKIP() << kNotChecked;
    // "no group but ann" is no group, and so is looked up in vain.
    EXPECT_EQ(
        *answer,
        "500 501 503 504 |Group: ann - 500\nGroup: team - 501\nGroup: annex - 503\nGroup: exact - 504\n");
}

TEST(ToolsAccounts, GroupsOfAnUnknownNameAreNone) {
    EXPECT_EQ(groupsAndTraces("no-such-user"), "|");
}

TEST(ToolsAccounts, GroupsOfThisMachineComeInFileOrder) {
    EXPECT_EQ(Tools::getGroups("root").at(0), 0U);
    EXPECT_EQ(Tools::getGroups("adm").at(0), 4U);
}

TEST(ToolsAccounts, MissingGroupFileMeansNoGroups) {
    const auto answer = testsupport::inPrivateMounts([] { testsupport::mountEmptyFolder("/etc"); },
                                                     [] { return groupsAndTraces("root"); });
    if (!answer)
        GTEST_SKIP() << kNotChecked;
    EXPECT_EQ(*answer, "|");
}

TEST(ToolsAccounts, FifoInTheGroupFilesPlaceMeansNoGroupsAtOnce) {
    const auto putFifo = [] {
        testsupport::mountEmptyFolder("/etc");
        ::mkfifo("/etc/group", 0644);
    };
    const auto answer = testsupport::inPrivateMounts(putFifo, [] { return groupsAndTraces("root"); });
    if (!answer)
        GTEST_SKIP() << kNotChecked;
    EXPECT_EQ(*answer, "|");
}

TEST(Accounts, EntriesCarryTheirNumbers) {
    const auto user = keywarden::findUser("man");
    ASSERT_TRUE(user);
    EXPECT_EQ(user->name, "man");
    EXPECT_EQ(user->uid, 6U);
    EXPECT_EQ(user->gid, 12U);
    EXPECT_EQ(keywarden::findUser(uid_t{6})->name, "man");
    EXPECT_FALSE(keywarden::findUser(uid_t{4000000000}));
    EXPECT_EQ(keywarden::findGroup("adm")->gid, 4U);
    EXPECT_EQ(keywarden::findGroup("adm")->name, "adm");
}

}  // namespace
