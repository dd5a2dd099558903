#include <gtest/gtest.h>

#include <sstream>

#include "support/Tools.h"

namespace {

using keywarden::Tools;
using Map = std::map<std::string, std::string>;
using Pair = std::pair<std::string, std::string>;

Map configMap(const std::string& text) {
    std::istringstream input(text);
    return Tools::getConfigMap(input);
}

Map configFileMap(const std::string& text) {
    std::istringstream input(text);
    return Tools::getConfigFileMap(input);
}

Map rawMap(const std::string& text) {
    std::istringstream input(text);
    return Tools::getMapKeyValue(input);
}

TEST(ToolsText, LeadingSpacesTabsAndLineFeedsAreRemoved) {
    EXPECT_EQ(Tools::removeSpaceAtBeginning(" \t\n a b "), "a b ");
    EXPECT_EQ(Tools::removeSpaceAtBeginning("a"), "a");
    EXPECT_EQ(Tools::removeSpaceAtBeginning(" \t\n"), "");
    EXPECT_EQ(Tools::removeSpaceAtBeginning(""), "");
}

TEST(ToolsText, LeadingCarriageReturnIsNoBlank) {
    EXPECT_EQ(Tools::removeSpaceAtBeginning(" \r a"), "\r a");
}

TEST(ToolsText, TrailingSpacesTabsAndLineFeedsAreRemoved) {
    EXPECT_EQ(Tools::removeSpaceFromEnding(" a b \t\n"), " a b");
    EXPECT_EQ(Tools::removeSpaceFromEnding("a"), "a");
    EXPECT_EQ(Tools::removeSpaceFromEnding(""), "");
}

TEST(ToolsText, FirstCharacterIsNeverRemovedFromTheEnding) {
    EXPECT_EQ(Tools::removeSpaceFromEnding(" "), " ");
    EXPECT_EQ(Tools::removeSpaceFromEnding("\t  \n"), "\t");
    EXPECT_EQ(Tools::removeSpaceFromEnding("x  "), "x");
}

TEST(ToolsText, TrailingCarriageReturnIsNoBlank) {
    EXPECT_EQ(Tools::removeSpaceFromEnding("a \r"), "a \r");
    EXPECT_EQ(Tools::removeSpaceFromEnding("a\r \n"), "a\r");
}

TEST(ToolsText, IndentedLineWithCommentIsCleanedToItsWords) {
    EXPECT_EQ(Tools::cleanConfigLine("  key value #comment  "), "key value");
}

TEST(ToolsText, LineOfACommentIsCleanedToNothing) {
    EXPECT_EQ(Tools::cleanConfigLine("# key value"), "");
    EXPECT_EQ(Tools::cleanConfigLine("   # key value"), "");
    EXPECT_EQ(Tools::cleanConfigLine("#"), "");
    EXPECT_EQ(Tools::cleanConfigLine(""), "");
    EXPECT_EQ(Tools::cleanConfigLine(" \t "), "");
}

TEST(ToolsText, ValueIsCutAtTheFirstHash) {
    EXPECT_EQ(Tools::cleanConfigLine("color a#b#c"), "color a");
}

TEST(ToolsText, BlanksBeforeTheValueGoWithIt) {
    EXPECT_EQ(Tools::getKeyAndValue("key    a b"), Pair("key", "a b"));
    EXPECT_EQ(Tools::getKeyAndValue("key \t a\tb "), Pair("key", "a\tb "));
}

TEST(ToolsText, TabBelongsToTheKey) {
    EXPECT_EQ(Tools::getKeyAndValue("key\tmore value"), Pair("key\tmore", "value"));
}

TEST(ToolsText, LineThatStartsWithASpaceHasAnEmptyKey) {
    EXPECT_EQ(Tools::getKeyAndValue(" key value"), Pair("", "key value"));
}

TEST(ToolsText, LineWithoutASpaceIsAllKey) {
    EXPECT_EQ(Tools::getKeyAndValue("key"), Pair("key", ""));
    EXPECT_EQ(Tools::getKeyAndValue(""), Pair("", ""));
}

TEST(ToolsConfigMap, EveryLineIsReadToTheEnd) {
    EXPECT_EQ(configMap("a 1\nb 2\n\nc 3"), (Map{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
    EXPECT_EQ(configMap(""), Map{});
}

TEST(ToolsConfigMap, IndentationAndCommentsAreNoPartOfALine) {
    EXPECT_EQ(configMap("  key value # comment  \n# other thing\nname a b # c # d\n"),
              (Map{{"key", "value"}, {"name", "a b"}}));
}

TEST(ToolsConfigMap, ValueWithAHashIsCutThere) {
    EXPECT_EQ(configMap("key a#b\n"), (Map{{"key", "a"}}));
}

TEST(ToolsConfigMap, LineWithoutASpaceIsSkipped) {
    EXPECT_EQ(configMap("key\nkey\tvalue\nkey=value\nkey \nkey # v\n"), Map{});
}

TEST(ToolsConfigMap, FirstOccurrenceOfAKeyWins) {
    EXPECT_EQ(configMap("key first\nkey second\n"), (Map{{"key", "first"}}));
}

TEST(ToolsConfigMap, KeysAreCaseSensitive) {
    EXPECT_EQ(configMap("key a\nKey b\n"), (Map{{"key", "a"}, {"Key", "b"}}));
}

TEST(ToolsConfigMap, CarriageReturnStaysInTheValue) {
    EXPECT_EQ(configMap("key value\r\n"), (Map{{"key", "value\r"}}));
}

TEST(ToolsConfigMap, ZeroBytesAreKept) {
    const std::string text("key a\0b\n", 8);
    EXPECT_EQ(configMap(text).at("key"), std::string("a\0b", 3));
}

TEST(ToolsConfigMap, MapOfAStringStreamFollowsTheSameRules) {
    std::stringstream input("  key value # comment\nkey other\nlonely\n\tname  a b\n");
    EXPECT_EQ(Tools::getMapFromStringStream(input), (Map{{"key", "value"}, {"name", "a b"}}));
}

TEST(ToolsConfigFileMap, IndentedLineWithTrailingCommentSetsNothing) {
    const Map values = configFileMap("  pidFile /run/a.pid # comment\n");
    EXPECT_EQ(values.count("pidFile"), 0U);
    EXPECT_EQ(values, (Map{{"", "pidFile /run/a.pid"}}));
}

TEST(ToolsConfigFileMap, UnindentedLineWithTrailingCommentSetsItsValue) {
    EXPECT_EQ(configFileMap("pidFile /run/a.pid  \t# comment\n"), (Map{{"pidFile", "/run/a.pid"}}));
}

TEST(ToolsConfigFileMap, IndentedLineWithoutCommentSetsItsValue) {
    EXPECT_EQ(configFileMap(" \t pidFile   /run/a b.pid \t\n"), (Map{{"pidFile", "/run/a b.pid"}}));
}

TEST(ToolsConfigFileMap, CommentLinesAndLinesWithoutASpaceSetNothing) {
    EXPECT_EQ(configFileMap("# pidFile /a\npidFile=/a\npidFile\t/a\n\n   \npidFile # /a\n#\n"), Map{});
}

TEST(ToolsConfigFileMap, IndentedCommentSetsNothingUnderAName) {
    EXPECT_EQ(configFileMap("   # pidFile /a\n").count("pidFile"), 0U);
}

TEST(ToolsConfigFileMap, FirstOccurrenceOfAKeyWins) {
    EXPECT_EQ(configFileMap("key first\nkey second\n"), (Map{{"key", "first"}}));
}

TEST(ToolsKeyValueMap, LinesAreTakenRaw) {
    EXPECT_EQ(rawMap("key value # no comment \n\nkey other\nlonely\nkey2   a\r\n"),
              (Map{{"key", "value # no comment "}, {"key2", "a\r"}}));
}

TEST(ToolsKeyValueMap, IndentationMakesAnEmptyKey) {
    EXPECT_EQ(rawMap(" key value\n#a b\n"), (Map{{"", "key value"}, {"#a", "b"}}));
}

}  // namespace
