#include "ctl/Requester.h"

#include <gtest/gtest.h>

#include <functional>

#include "ctl/Problem.h"

using namespace keywardctl;

namespace {

ExitCode codeOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Problem& problem) {
        return problem.code();
    }
    return ExitCode::Done;
}

TEST(RequestLine, HasTwoHeaderFieldsAndTabs) {
    EXPECT_EQ(requestLine("web", {"ca", "revoke", "a", ""}), "keywardctl\tweb\tca\trevoke\ta\t");
}

TEST(RequestLine, RefusesWhatTheProtocolCannotCarry) {
    for (const std::string& field : {std::string("a\tb"), std::string("a\n"), std::string("a\0b", 3)}) {
        EXPECT_EQ(codeOf([&] { (void)requestLine("web", {"ca", field}); }), ExitCode::Usage);
        EXPECT_EQ(codeOf([&] { (void)requestLine(field, {"ca"}); }), ExitCode::Usage);
    }
}

TEST(ParsedAnswer, IsACodeABlankAndAText) {
    EXPECT_EQ(parseAnswer("0 ").code, 0);
    EXPECT_EQ(parseAnswer("0 ").text, "");
    EXPECT_EQ(parseAnswer("43 two words\nand a line").code, 43);
    EXPECT_EQ(parseAnswer("43 two words\nand a line").text, "two words\nand a line");
}

TEST(ParsedAnswer, AnythingElseIsAFailure) {
    for (const char* const answer : {"", "0", "x 1", " 0 running", "99999999999 x", "0\trunning"})
        EXPECT_EQ(codeOf([&] { (void)parseAnswer(answer); }), ExitCode::Failed) << answer;
}

TEST(RequiredSuccess, OtherAnswersAreRefusalsWithTheDaemonsText) {
    EXPECT_EQ(codeOf([] { requireSuccess({0, "running"}); }), ExitCode::Done);
    EXPECT_EQ(codeOf([] { requireSuccess({1, "failed"}); }), ExitCode::Refused);
    EXPECT_EQ(codeOf([] { requireSuccess({7, "The service is not running."}); }), ExitCode::Refused);
    EXPECT_EQ(codeOf([] { requireSuccess({7, "The daemon just terminate"}); }), ExitCode::DaemonNotRunning);
    try {
        requireSuccess({26, "Error in validating csr and crt"});
        FAIL();
    } catch (const Problem& problem) {
        EXPECT_STREQ(problem.what(), "Error in validating csr and crt");
    }
}

}  // namespace
