#include "stores/CertificateIdList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/Tools.h"
#include "tests/unit/stores/Failures.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::CertificateIdList;
using keywarden::Tools;
using testsupport::Sandbox;

using Ids = std::vector<std::string>;

TEST(CertificateIdList, NewListIsEmpty) {
    const CertificateIdList list;
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.toArray(), Ids());
    EXPECT_EQ(list.toTextList(), "");
}

TEST(CertificateIdList, IdsStandOnceAndInAscendingByteOrder) {
    const CertificateIdList list(Ids{"b.0", "B.0", "a.0", "b.0", "a.1"});
    EXPECT_EQ(list.toArray(), (Ids{"B.0", "a.0", "a.1", "b.0"}));
    EXPECT_EQ(list.toTextList(), "B.0 a.0 a.1 b.0");
}

TEST(CertificateIdList, KnowsWhatItHolds) {
    CertificateIdList list;
    list.add("a.0");
    EXPECT_FALSE(list.empty());
    EXPECT_TRUE(list.exist("a.0"));
    EXPECT_FALSE(list.exist("a.1"));
    EXPECT_FALSE(list.exist("a"));
    EXPECT_FALSE(list.exist(""));
}

TEST(CertificateIdList, FileIsInAscendingOrderWhateverTheOrderOfInsertion) {
    const Sandbox sandbox;
    CertificateIdList list;
    for (const char* id : {"00000003.0", "00000001.1", "00000002.0", "00000001.0"})
        list.add(id);
    list.writeIntoFile(sandbox.path("list.txt"), true);
    EXPECT_EQ(Sandbox::read(sandbox.path("list.txt")), "00000001.0\n00000001.1\n00000002.0\n00000003.0\n");
    EXPECT_EQ(Sandbox::mode(sandbox.path("list.txt")), 0644U);
}

TEST(CertificateIdList, EmptyListIsAnEmptyFile) {
    const Sandbox sandbox;
    CertificateIdList().writeIntoFile(sandbox.path("list.txt"), true);
    EXPECT_EQ(Sandbox::read(sandbox.path("list.txt")), "");
}

TEST(CertificateIdList, TruncatingTakesThePlaceOfTheOldLines) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("list.txt", "00000009.0\n00000008.0\n");
    CertificateIdList(Ids{"00000001.0"}).writeIntoFile(path, true);
    EXPECT_EQ(Sandbox::read(path), "00000001.0\n");
}

TEST(CertificateIdList, WithoutTruncatingTheLinesFollowTheOldOnes) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("list.txt", "00000009.0\n");
    CertificateIdList(Ids{"00000002.0", "00000001.0"}).writeIntoFile(path, false);
    EXPECT_EQ(Sandbox::read(path), "00000009.0\n00000001.0\n00000002.0\n");
}

TEST(CertificateIdList, WithoutTruncatingAnOldLineThatHasNoEndGetsOne) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("list.txt", "00000009.0");
    CertificateIdList(Ids{"00000001.0"}).writeIntoFile(path, false);
    EXPECT_EQ(Sandbox::read(path), "00000009.0\n00000001.0\n");
}

TEST(CertificateIdList, WithoutTruncatingAMissingFileIsMade) {
    const Sandbox sandbox;
    CertificateIdList(Ids{"00000001.0"}).writeIntoFile(sandbox.path("list.txt"), false);
    EXPECT_EQ(Sandbox::read(sandbox.path("list.txt")), "00000001.0\n");
}

TEST(CertificateIdList, WrittenFileGetsTheGroup) {
    const Sandbox sandbox;
    CertificateIdList(Ids{"00000001.0"}).writeIntoFile(sandbox.path("list.txt"), true, "daemon");
    EXPECT_EQ(Tools::getRights(sandbox.path("list.txt")).gid, Tools::getGroupId("daemon"));
    EXPECT_EQ(Sandbox::mode(sandbox.path("list.txt")), 0644U);
}

TEST(CertificateIdList, EveryLineOfAFileIsAnId) {
    const Sandbox sandbox;
    const CertificateIdList list(sandbox.write("list.txt", "00000002.0\nany text\n00000001.0\n00000002.0"));
    EXPECT_EQ(list.toArray(), (Ids{"00000001.0", "00000002.0", "any text"}));
}

TEST(CertificateIdList, EmptyLineNamesNothing) {
    const Sandbox sandbox;
    const CertificateIdList list(sandbox.write("list.txt", "00000002.0\n\n00000001.0\n\n"));
    EXPECT_EQ(list.toArray(), (Ids{"00000001.0", "00000002.0"}));
}

TEST(CertificateIdList, ReadingTakesThePlaceOfWhatWasThere) {
    const Sandbox sandbox;
    CertificateIdList list(Ids{"00000009.0"});
    list.readFromFile(sandbox.write("list.txt", "00000001.0\n"));
    EXPECT_EQ(list.toArray(), (Ids{"00000001.0"}));
}

TEST(CertificateIdList, WrittenAndReadBackIsTheSame) {
    const Sandbox sandbox;
    const CertificateIdList list(Ids{"00000002.0", "00000001.0"});
    list.writeIntoFile(sandbox.path("list.txt"), true);
    EXPECT_EQ(CertificateIdList(sandbox.path("list.txt")).toArray(), list.toArray());
}

TEST(CertificateIdList, FileThatCannotBeReadFails) {
    const Sandbox sandbox;
    EXPECT_EQ(runtimeErrorOf([] { const CertificateIdList list(std::string("/nowhere/list.txt")); }),
              "Impossible to open the list file /nowhere/list.txt.");
    EXPECT_EQ(runtimeErrorOf([&sandbox] { const CertificateIdList list(sandbox.path()); }),
              "Impossible to open the list file " + sandbox.path() + ".");
}

TEST(CertificateIdList, FileThatCannotBeWrittenFails) {
    const Sandbox sandbox;
    const std::string folder = sandbox.path("folder");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const CertificateIdList list(Ids{"00000001.0"});
    const auto write = [&list](const std::string& path, bool truncate) {
        return runtimeErrorOf([&] { list.writeIntoFile(path, truncate); });
    };
    EXPECT_EQ(write("/nowhere/list.txt", true), "Impossible to open the list file /nowhere/list.txt.");
    EXPECT_EQ(write(folder, true), "Impossible to open the list file " + folder + ".");
    EXPECT_EQ(write(folder, false), "Impossible to open the list file " + folder + ".");
}

}  // namespace
