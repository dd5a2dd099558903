#include "channel/CommandTable.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using keywarden::ArgumentCounts;
using keywarden::CommandRow;
using keywarden::Commands;
using keywarden::hasEveryCommand;
using keywarden::kCommandTable;
using keywarden::rowOf;

/// "x" for a number that is among them, from 0 to 6.
std::string marksOf(ArgumentCounts counts) {
    std::string marks;
    for (std::size_t number = 0; number <= 6; ++number)
        marks += counts.contains(number) ? 'x' : '.';
    return marks;
}

TEST(ArgumentCounts, AreNoneExactlyOneOrAllFromOneOn) {
    EXPECT_EQ(marksOf(ArgumentCounts()), ".......");
    EXPECT_EQ(marksOf(ArgumentCounts::exactly(0)), "x......");
    EXPECT_EQ(marksOf(ArgumentCounts::exactly(3)), "...x...");
    EXPECT_EQ(marksOf(ArgumentCounts::atLeast(0)), "xxxxxxx");
    EXPECT_EQ(marksOf(ArgumentCounts::atLeast(2)), "..xxxxx");
    EXPECT_EQ(marksOf(ArgumentCounts::atLeast(4)), "....xxx");
    EXPECT_TRUE(ArgumentCounts::atLeast(4).contains(100000));
}

TEST(ArgumentCounts, AreJoined) {
    EXPECT_EQ(marksOf(ArgumentCounts::exactly(0) | ArgumentCounts::atLeast(2)), "x.xxxxx");
    EXPECT_EQ(marksOf(ArgumentCounts() | ArgumentCounts::exactly(1)), ".x.....");
}

TEST(ArgumentCounts, AreEmptyOnlyWithoutANumber) {
    EXPECT_TRUE(ArgumentCounts().isEmpty());
    EXPECT_FALSE(ArgumentCounts::exactly(0).isEmpty());
    EXPECT_FALSE(ArgumentCounts::atLeast(4).isEmpty());
}

TEST(ArgumentCounts, NumberThatIsNotToldFromGreaterOnesIsRefused) {
    EXPECT_THROW((void)ArgumentCounts::exactly(4), std::logic_error);
    EXPECT_THROW((void)ArgumentCounts::atLeast(5), std::logic_error);
}

TEST(CommandTable, IsWholeOnlyWithEveryCodeAtItsPlace) {
    EXPECT_TRUE(hasEveryCommand(kCommandTable));
    auto swapped = kCommandTable;
    std::swap(swapped[3], swapped[4]);
    EXPECT_FALSE(hasEveryCommand(swapped));
    auto forgotten = kCommandTable;
    forgotten.back() = CommandRow{};
    EXPECT_FALSE(hasEveryCommand(forgotten));
    const std::array<CommandRow, 1> tooShort{kCommandTable[0]};
    EXPECT_FALSE(hasEveryCommand(tooShort));
}

TEST(CommandTable, EveryWordIsThereOnceAndOnlyNoCommandHasNone) {
    std::set<std::string> words;
    for (const CommandRow& row : kCommandTable) {
        EXPECT_TRUE(words.insert(row.word).second) << row.word;
        EXPECT_EQ(std::string(row.word).empty(), row.code == Commands::CommandNone) << row.code;
    }
}

TEST(CommandTable, NoTargetTakesNoCommandAndNoCommandIsTaken) {
    for (const CommandRow& row : kCommandTable)
        EXPECT_TRUE(row.of(Commands::TargetNone).isEmpty()) << row.word;
    for (int target = Commands::TargetServer; target <= Commands::TargetNone; ++target)
        EXPECT_TRUE(
            rowOf(kCommandTable, Commands::CommandNone).of(static_cast<Commands::Target>(target)).isEmpty());
}

TEST(CommandTable, EveryCommandIsTakenByATarget) {
    for (const CommandRow& row : kCommandTable)
        EXPECT_EQ(row.server.isEmpty() && row.store.isEmpty() && row.config.isEmpty(),
                  row.code == Commands::CommandNone)
            << row.word;
}

TEST(CommandWords, AreThoseOfTheTable) {
    for (const CommandRow& row : kCommandTable)
        EXPECT_EQ(Commands::wordOf(row.code), row.word);
    EXPECT_EQ(Commands::wordOf(Commands::CommandNone), "");
    EXPECT_EQ(Commands::wordOf(Commands::TargetServer), "server");
    EXPECT_EQ(Commands::wordOf(Commands::TargetCA), "ca");
    EXPECT_EQ(Commands::wordOf(Commands::TargetClient), "client");
    EXPECT_EQ(Commands::wordOf(Commands::TargetConfig), "config");
    EXPECT_EQ(Commands::wordOf(Commands::TargetNone), "");
}

}  // namespace
