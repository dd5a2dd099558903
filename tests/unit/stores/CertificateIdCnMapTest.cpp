#include "stores/CertificateIdCnMap.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/Tools.h"
#include "tests/unit/stores/Failures.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::CertificateIdCnMap;
using keywarden::Tools;
using testsupport::Sandbox;

using Entries = std::map<std::string, std::string>;

CertificateIdCnMap mapOf(const Entries& entries) {
    CertificateIdCnMap map;
    for (const auto& [id, commonName] : entries)
        map.set(id, commonName);
    return map;
}

TEST(CertificateIdCnMap, NewMapIsEmpty) {
    const CertificateIdCnMap map;
    EXPECT_EQ(map.size(), 0U);
    EXPECT_FALSE(map.certificateIdExist(""));
    EXPECT_TRUE(map.toCertificateIdList().empty());
}

TEST(CertificateIdCnMap, HasOneNameForAnId) {
    CertificateIdCnMap map;
    map.set("00000001.0", "first");
    map.set("00000001.0", "second");
    EXPECT_EQ(map.size(), 1U);
    EXPECT_EQ(map.entries(), (Entries{{"00000001.0", "second"}}));
    map.remove("00000001.0");
    map.remove("00000002.0");
    EXPECT_FALSE(map.certificateIdExist("00000001.0"));
}

TEST(CertificateIdCnMap, GivesItsIdsAsAList) {
    const CertificateIdCnMap map = mapOf({{"00000002.0", "b"}, {"00000001.0", "a"}});
    EXPECT_EQ(map.toCertificateIdList().toTextList(), "00000001.0 00000002.0");
}

TEST(CertificateIdCnMap, FileHasALineForEachEntryInAscendingOrder) {
    const Sandbox sandbox;
    mapOf({{"00000002.0", "Web Server CA"}, {"00000001.0", ""}}).writeIntoFile(sandbox.path("map"), true);
    EXPECT_EQ(Sandbox::read(sandbox.path("map")), "00000001.0 \n00000002.0 Web Server CA\n");
    EXPECT_EQ(Sandbox::mode(sandbox.path("map")), 0644U);
}

TEST(CertificateIdCnMap, LineFeedInACommonNameMakesNoNewEntry) {
    const Sandbox sandbox;
    mapOf({{"00000001.0", "a\n00000002.0 forged"}}).writeIntoFile(sandbox.path("map"), true);
    EXPECT_EQ(Sandbox::read(sandbox.path("map")), "00000001.0 a 00000002.0 forged\n");
}

TEST(CertificateIdCnMap, WithoutTruncatingTheLinesFollowTheOldOnes) {
    const Sandbox sandbox;
    const std::string path = sandbox.write("map", "00000009.0 old\n");
    mapOf({{"00000001.0", "new"}}).writeIntoFile(path, false);
    EXPECT_EQ(Sandbox::read(path), "00000009.0 old\n00000001.0 new\n");
    mapOf({{"00000001.0", "new"}}).writeIntoFile(path, true);
    EXPECT_EQ(Sandbox::read(path), "00000001.0 new\n");
}

TEST(CertificateIdCnMap, WrittenFileGetsTheGroup) {
    const Sandbox sandbox;
    mapOf({{"00000001.0", "a"}}).writeIntoFile(sandbox.path("map"), true, "daemon");
    EXPECT_EQ(Tools::getRights(sandbox.path("map")).gid, Tools::getGroupId("daemon"));
    EXPECT_EQ(Sandbox::mode(sandbox.path("map")), 0644U);
}

TEST(CertificateIdCnMap, CommonNameKeepsItsInnerSpaces) {
    const Sandbox sandbox;
    const CertificateIdCnMap map(sandbox.write("map", "A1 Web Server CA\n"));
    EXPECT_EQ(map.entries(), (Entries{{"A1", "Web Server CA"}}));
    EXPECT_TRUE(map.certificateIdExist("A1"));
    EXPECT_FALSE(map.certificateIdExist("a1"));
}

TEST(CertificateIdCnMap, LineIsSplitAtItsFirstSpaceOnly) {
    const Sandbox sandbox;
    const CertificateIdCnMap map(sandbox.write("map", "A1  two spaces \nA2 \nA3 tab\tend"));
    EXPECT_EQ(map.entries(), (Entries{{"A1", " two spaces "}, {"A2", ""}, {"A3", "tab\tend"}}));
}

TEST(CertificateIdCnMap, LineWithoutASpaceIsSkipped) {
    const Sandbox sandbox;
    const CertificateIdCnMap map(sandbox.write("map", "A1\n\nA2\tname\nA3 name\n"));
    EXPECT_EQ(map.entries(), (Entries{{"A3", "name"}}));
}

TEST(CertificateIdCnMap, FirstLineForAnIdWins) {
    const Sandbox sandbox;
    const CertificateIdCnMap map(sandbox.write("map", "A1 first\nA1 second\n"));
    EXPECT_EQ(map.entries(), (Entries{{"A1", "first"}}));
}

TEST(CertificateIdCnMap, ReadingTakesThePlaceOfWhatWasThere) {
    const Sandbox sandbox;
    CertificateIdCnMap map = mapOf({{"A1", "old"}, {"A2", "old"}});
    map.readFromFile(sandbox.write("map", "A1 new\n"));
    EXPECT_EQ(map.entries(), (Entries{{"A1", "new"}}));
}

TEST(CertificateIdCnMap, WrittenAndReadBackIsTheSame) {
    const Sandbox sandbox;
    const CertificateIdCnMap map = mapOf({{"A1", "Web Server CA"}, {"A2", "caf\xc3\xa9"}});
    map.writeIntoFile(sandbox.path("map"), true);
    EXPECT_EQ(CertificateIdCnMap(sandbox.path("map")).entries(), map.entries());
}

TEST(CertificateIdCnMap, FailureToOpenSpeaksOfTheListFile) {
    const Sandbox sandbox;
    EXPECT_EQ(runtimeErrorOf([] { const CertificateIdCnMap map(std::string("/nowhere/id_cn.map")); }),
              "Impossible to open the list file /nowhere/id_cn.map.");
    EXPECT_EQ(runtimeErrorOf([] { CertificateIdCnMap().writeIntoFile("/nowhere/id_cn.map", true); }),
              "Impossible to open the list file /nowhere/id_cn.map.");
}

}  // namespace
