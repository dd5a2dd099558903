// The C library's log functions are replaced in this program, to see what the log calls and how often.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "support/Log.h"

namespace {

std::vector<std::string> calls;

void keep(int priority, const std::string& format, const std::string& text) {
    calls.push_back("syslog " + std::to_string(priority) + " [" + format + "] " + text);
}

}  // namespace

extern "C" {

void openlog(const char* identity, int option, int facility) {
    calls.push_back("openlog " + std::string(identity) + " " + std::to_string(option) + " " +
                    std::to_string(facility));
}

// The log has one format, "%s"; another is kept without its text, and the tests then fail.
void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    // The analyser takes no notice of the line above.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    keep(priority, format, std::string(format) == "%s" ? va_arg(arguments, const char*) : "");
    va_end(arguments);
}

// What syslog() becomes in an optimised build with the C library's checks.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    // The analyser takes no notice of the line above.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    keep(priority, format, std::string(format) == "%s" ? va_arg(arguments, const char*) : "");
    va_end(arguments);
}

void closelog() {
    calls.emplace_back("closelog");
}
}

namespace {

using keywarden::Log;
using Calls = std::vector<std::string>;

class LogCalls : public testing::Test {
  protected:
    LogCalls() {
        Log::close();
        calls.clear();
    }
};

TEST_F(LogCalls, OpenNamesTheDaemonOnce) {
    Log::open();
    Log::open();
    EXPECT_EQ(calls, (Calls{"openlog key-warden 1 24"}));
}

TEST_F(LogCalls, TextIsAnArgumentNeverTheFormat) {
    Log::open();
    EXPECT_TRUE(Log::write(keywarden::SeverityError, "%s %n"));
    EXPECT_EQ(calls, (Calls{"openlog key-warden 1 24", "syslog 3 [%s] %s %n"}));
}

TEST_F(LogCalls, SeveritiesAreTheSystemLogsOwnPriorities) {
    EXPECT_EQ(keywarden::SeverityEmergency, LOG_EMERG);
    EXPECT_EQ(keywarden::SeverityError, LOG_ERR);
    EXPECT_EQ(keywarden::SeverityWarning, LOG_WARNING);
    EXPECT_EQ(keywarden::SeverityNotice, LOG_NOTICE);
    EXPECT_EQ(keywarden::SeverityInfo, LOG_INFO);
}

TEST_F(LogCalls, ClosedLogCallsNothing) {
    EXPECT_FALSE(Log::write(keywarden::SeverityError, "text"));
    Log::close();
    EXPECT_EQ(calls, Calls{});
}

TEST_F(LogCalls, CloseClosesOnceAndOpenOpensAgain) {
    Log::open();
    Log::close();
    Log::close();
    Log::open();
    EXPECT_EQ(calls, (Calls{"openlog key-warden 1 24", "closelog", "openlog key-warden 1 24"}));
}

}  // namespace
