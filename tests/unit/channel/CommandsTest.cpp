#include "channel/Commands.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "testsupport/Traces.h"

namespace {

using keywarden::Commands;
using testsupport::tracesOf;
using Fields = std::vector<std::string>;

std::string refusalOf(const std::string& line) {
    try {
        const Commands command(line);
        return "accepted";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

struct Row {
    const char* word;
    int code;
    // Accepted or not, with 0 to 4 arguments.
    const char* server;
    const char* ca;
    const char* client;
    const char* config;
};

constexpr const char* kNever = ".....";

const std::vector<Row> kTable{
    {"reload", 0, kNever, kNever, kNever, "x...."},
    {"help", 1, "x....", "x....", "x....", "x...."},
    {"getcsr", 2, "x....", kNever, kNever, kNever},
    {"createcsr", 3, "xxxxx", kNever, kNever, kNever},
    {"createcrt", 4, "...x.", kNever, kNever, kNever},
    {"applycrt", 5, ".x...", kNever, kNever, kNever},
    {"revoke", 6, "x....", ".xxxx", ".xxxx", kNever},
    {"list", 7, kNever, "x....", "x....", kNever},
    {"add", 8, kNever, ".x...", ".x...", kNever},
    {"info", 9, "x.xxx", ".xxxx", ".xxxx", "..xxx"},
    {"details", 10, "x....", ".x...", ".x...", kNever},
    {"path", 11, "x.xxx", "x.xxx", "x.xxx", kNever},
    {"getkey", 12, "x....", kNever, kNever, kNever},
    {"getcert", 13, "x....", ".x...", ".x...", kNever},
    {"getOverwrittenData", 15, "x....", ".x...", ".x...", kNever},
    {"setOverwrittenData", 16, "..x..", "...x.", "...x.", kNever},
    {"listByCN", 17, kNever, ".x...", ".x...", kNever},
    {"status", 18, kNever, kNever, kNever, "x...."},
    {"getcsrinfo", 19, "x....", kNever, kNever, kNever},
    {"getcertinfo", 20, "xxxxx", "xxxxx", "xxxxx", kNever},
    {"getcsrtimestamp", 21, "x....", kNever, kNever, kNever},
};

TEST(Commands, EveryWordIsTakenForItsTargetsAndCountsOnly) {
    const Fields targets{"server", "ca", "client", "config"};
    const Fields arguments{"first", "", "third", "fourth"};
    ASSERT_EQ(kTable.size(), 21U);
    for (const Row& row : kTable) {
        const Fields accepted{row.server, row.ca, row.client, row.config};
        for (std::size_t target = 0; target < targets.size(); ++target)
            for (std::size_t count = 0; count <= 4; ++count) {
                std::string line = "one\ttwo\t" + targets[target] + "\t" + row.word;
                for (std::size_t index = 0; index < count; ++index)
                    line += "\t" + arguments[index];
                SCOPED_TRACE(line);
                if (accepted[target][count] != 'x') {
                    EXPECT_EQ(
                        refusalOf(line),
                        std::string("Bad format for command. Incorrect arguments received for: ") + row.word);
                    continue;
                }
                const Commands command(line);
                EXPECT_EQ(command.getTarget(), static_cast<int>(target));
                EXPECT_EQ(command.getCommand(), row.code);
                EXPECT_EQ(command.getArguments(),
                          Fields(arguments.begin(), arguments.begin() + static_cast<std::ptrdiff_t>(count)));
                EXPECT_EQ(command.getFirstHeader(), "one");
                EXPECT_EQ(command.getSecondHeader(), "two");
                EXPECT_EQ(command.toMessage(), line);
            }
    }
}

TEST(Commands, EmptyCommandHasNoTargetAndNoWord) {
    const Commands command;
    EXPECT_EQ(command.getTarget(), 4);
    EXPECT_EQ(command.getCommand(), 14);
    EXPECT_TRUE(command.getArguments().empty());
    EXPECT_EQ(command.toMessage(), "\t\t\t");
}

TEST(Commands, TargetsAreMatchedExactly) {
    EXPECT_EQ(Commands::identifyTarget("server"), 0);
    EXPECT_EQ(Commands::identifyTarget("ca"), 1);
    EXPECT_EQ(Commands::identifyTarget("client"), 2);
    EXPECT_EQ(Commands::identifyTarget("config"), 3);
    for (const char* word : {"", "Server", "CA", "server ", " ca", "serve", "clients", "server\n"})
        EXPECT_EQ(Commands::identifyTarget(word), 4) << word;
}

TEST(Commands, UnknownTargetIsRefusedWithTheShortenedText) {
    for (const char* target : {"Server", "", "CA", "other"})
        EXPECT_EQ(refusalOf(std::string("a\tb\t") + target + "\tstatus"),
                  "format for command. Invalid target received: ");
}

TEST(Commands, UnknownWordIsRefusedWithTheWord) {
    const std::string text = "Bad format for command. Incorrect arguments received for: ";
    EXPECT_EQ(refusalOf("a\tb\tserver\tdestroy"), text + "destroy");
    EXPECT_EQ(refusalOf("a\tb\tserver\tGetCsr"), text + "GetCsr");
    EXPECT_EQ(refusalOf("a\tb\tca\tlistbycn\tx"), text + "listbycn");
    EXPECT_EQ(refusalOf("a\tb\tconfig\t"), text);
    EXPECT_EQ(refusalOf("a\tb\tconfig\tstatus\n"), text + "status\n");
    EXPECT_EQ(refusalOf("a\tb\tconfig\tstatus "), text + "status ");
}

TEST(Commands, FewerThanFourFieldsAreRefused) {
    for (const char* line : {"", "a", "a\tb", "a\tb\tconfig", "\t\t", "status"})
        EXPECT_EQ(refusalOf(line), "Bad format for command.") << line;
}

TEST(Commands, FieldsMayBeEmpty) {
    const Commands command("\t\tserver\tcreatecsr\t\t");
    EXPECT_EQ(command.getFirstHeader(), "");
    EXPECT_EQ(command.getSecondHeader(), "");
    EXPECT_EQ(command.getArguments(), (Fields{"", ""}));
    EXPECT_EQ(command.toMessage(), "\t\tserver\tcreatecsr\t\t");
}

TEST(Commands, TabAtTheEndMakesAnEmptyLastField) {
    EXPECT_EQ(refusalOf("a\tb\tconfig\treload\t"),
              "Bad format for command. Incorrect arguments received for: reload");
    EXPECT_EQ(Commands("a\tb\tserver\tapplycrt\t").getArguments(), Fields{""});
    EXPECT_EQ(refusalOf("a\tb\tconfig\t"), "Bad format for command. Incorrect arguments received for: ");
}

TEST(Commands, OnlyTabsSeparate) {
    const Commands command("a b\tc\nd\tca\tadd\t/tmp/my file.pem");
    EXPECT_EQ(command.getFirstHeader(), "a b");
    EXPECT_EQ(command.getSecondHeader(), "c\nd");
    EXPECT_EQ(command.getArguments(), Fields{"/tmp/my file.pem"});
}

TEST(Commands, EveryArgumentIsTracedWithItsNumber) {
    EXPECT_EQ(tracesOf([] { const Commands command("a\tb\tserver\tcreatecsr\tone\t\tthree"); }),
              "number: 4 value:one\nnumber: 5 value:\nnumber: 6 value:three\n");
    EXPECT_EQ(tracesOf([] { const Commands command("a\tb\tconfig\tstatus"); }), "");
}

TEST(Commands, ArgumentsAreTracedBeforeARefusal) {
    EXPECT_EQ(tracesOf([] { refusalOf("a\tb\tnowhere\tstatus\tone"); }), "number: 4 value:one\n");
    EXPECT_EQ(tracesOf([] { refusalOf("a\tb\tconfig"); }), "");
}

TEST(Commands, MessageIsTraced) {
    EXPECT_EQ(tracesOf([] { EXPECT_EQ(Commands("a\tb\tca\tlist").toMessage(), "a\tb\tca\tlist"); }),
              "Commands::toMessage() :a\tb\tca\tlist\n");
}

}  // namespace
