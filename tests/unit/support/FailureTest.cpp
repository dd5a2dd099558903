#include "support/Failure.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/KeywardenDaemonException.h"

namespace {

using keywarden::Failure;
using keywarden::KeywardenDaemonException;

struct Silent : std::exception {
    [[nodiscard]] const char* what() const noexcept override { return nullptr; }
};

template <typename Throw>
Failure caught(Throw&& doThrow) {
    try {
        doThrow();
    } catch (...) {
        return Failure::current();
    }
    throw std::logic_error("nothing was thrown");
}

TEST(Failure, DaemonExceptionKeepsItsCodeAndText) {
    const Failure failure = caught([] { throw KeywardenDaemonException(42, "full"); });
    EXPECT_EQ(failure.kind(), Failure::Kind::Daemon);
    EXPECT_EQ(failure.code(), 42);
    EXPECT_EQ(failure.text(), "full");
    EXPECT_EQ(caught([] { throw KeywardenDaemonException("none"); }).code(), 0);
}

TEST(Failure, RuntimeErrorIsToldFromOtherStandardExceptions) {
    EXPECT_EQ(caught([] { throw std::runtime_error("r"); }).kind(), Failure::Kind::Runtime);
    EXPECT_EQ(caught([] { throw std::range_error("r"); }).kind(), Failure::Kind::Runtime);
    EXPECT_EQ(caught([] { throw std::logic_error("l"); }).kind(), Failure::Kind::Standard);
    EXPECT_EQ(caught([] { throw std::logic_error("l"); }).code(), 0);
    EXPECT_EQ(caught([] { throw std::logic_error("l"); }).text(), "l");
}

TEST(Failure, AnythingElseIsUnknown) {
    const Failure failure = caught([] { throw 7; });
    EXPECT_EQ(failure.kind(), Failure::Kind::Unknown);
    EXPECT_EQ(failure.text(), "Unknown error");
    EXPECT_EQ(failure.textOrNothing(), "");
}

TEST(Failure, EmptyOrMissingTextReadsUnknownError) {
    EXPECT_EQ(caught([] { throw std::runtime_error(""); }).text(), "Unknown error");
    EXPECT_EQ(caught([] { throw std::runtime_error(""); }).textOrNothing(), "");
    EXPECT_EQ(caught([] { throw Silent(); }).text(), "Unknown error");
    EXPECT_EQ(caught([] { throw Silent(); }).textOrNothing(), "");
    EXPECT_EQ(caught([] { throw std::runtime_error("x"); }).textOrNothing(), "x");
}

TEST(Failure, ThreeCasesTellTheDaemonsOwnException) {
    EXPECT_EQ(caught([] { throw KeywardenDaemonException("a"); }).message("D: ", "S: ", "U."), "D: a");
    EXPECT_EQ(caught([] { throw std::runtime_error("a"); }).message("D: ", "S: ", "U."), "S: a");
    EXPECT_EQ(caught([] { throw std::logic_error(""); }).message("D: ", "S: ", "U."), "S: Unknown error");
    EXPECT_EQ(caught([] { throw 'x'; }).message("D: ", "S: ", "U."), "U.");
}

TEST(Failure, ThreeCasesTellARuntimeError) {
    EXPECT_EQ(caught([] { throw std::runtime_error("a"); }).runtimeMessage("R: ", "S: ", "U."), "R: a");
    EXPECT_EQ(caught([] { throw KeywardenDaemonException("a"); }).runtimeMessage("R: ", "S: ", "U."), "S: a");
    EXPECT_EQ(caught([] { throw std::logic_error("a"); }).runtimeMessage("R: ", "S: ", "U."), "S: a");
    EXPECT_EQ(caught([] { throw 'x'; }).runtimeMessage("R: ", "S: ", "U."), "U.");
}

TEST(Failure, TwoCasesTakeTheDaemonsOwnAsStandard) {
    EXPECT_EQ(caught([] { throw KeywardenDaemonException("a"); }).message("S: ", "U."), "S: a");
    EXPECT_EQ(caught([] { throw std::runtime_error("a"); }).message("S: ", "U."), "S: a");
    EXPECT_EQ(caught([] { throw 1; }).message("S: ", "U."), "U.");
}

}  // namespace
