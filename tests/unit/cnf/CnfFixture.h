#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testsupport/CapturedLog.h"
#include "testsupport/Sandbox.h"
#include "testsupport/Traces.h"

/// A folder for settings files and scripts, and a log without lines.
class CnfFixture : public testing::Test {
  protected:
    CnfFixture() { testsupport::CapturedLog::clear(); }

    [[nodiscard]] std::string settings(const std::string& content) const {
        return sandbox_.write("request.cnf", content);
    }
    [[nodiscard]] std::string script(const std::string& body) const {
        return sandbox_.write("script.sh", "#!/bin/sh\n" + body + "\n", 0755);
    }
    /// The arguments that a script of `writesArguments` was given, one a line.
    [[nodiscard]] std::string seenArguments() const {
        return testsupport::Sandbox::read(sandbox_.path("seen"));
    }
    [[nodiscard]] std::string writesArguments() const {
        return "for word in \"$@\"; do echo \"[$word]\"; done > " + sandbox_.path("seen");
    }
    static void expectLog(const std::vector<testsupport::LogLine>& lines) {
        EXPECT_EQ(testsupport::CapturedLog::lines(), lines);
    }

    testsupport::Sandbox sandbox_;
};
