#include "ctl/Table.h"

#include <gtest/gtest.h>

using namespace keywardctl;

namespace {

TEST(TableText, ColumnsAreAlignedByCharactersWithoutBlanksAtTheEnd) {
    Table table({"NAME", "X", "LAST"});
    table.add({{"M\xc3\xbcnchen"}, {"1"}, {"end"}});
    table.add({{"a"}, {"23"}, {""}});
    EXPECT_EQ(table.text(false),
              "NAME     X   LAST\n"
              "M\xc3\xbcnchen  1   end\n"
              "a        23\n");
}

TEST(TableText, ColoursDoNotMoveColumns) {
    Table table({"A", "B"});
    table.add({{"good", Colour::Good}, {"x"}});
    table.add({{"bad", Colour::Bad}, {"so", Colour::Doubtful}});
    EXPECT_EQ(table.text(true),
              "A     B\n"
              "\033[32mgood\033[0m  x\n"
              "\033[31mbad\033[0m   \033[33mso\033[0m\n");
    EXPECT_EQ(table.text(false), "A     B\ngood  x\nbad   so\n");
}

TEST(WantedColours, TheChoiceGoesBeforeEverything) {
    EXPECT_TRUE(wantsColours("always"));
    EXPECT_FALSE(wantsColours("never"));
}

}  // namespace
