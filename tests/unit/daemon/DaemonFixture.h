#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "testsupport/CapturedLog.h"
#include "testsupport/ExitedChild.h"
#include "testsupport/TestAccounts.h"
#include "testsupport/TestDevice.h"

namespace daemontest {

/// 2024-06-15 13:45:00 UTC.
constexpr std::int64_t kNow = 1718459100;

using Lines = std::vector<testsupport::LogLine>;

/// Waits for a condition; false after the time.
bool becomes(const std::function<bool()>& condition,
             std::chrono::milliseconds time = std::chrono::seconds(20));

/// "0640 root kwkeys": mode, owner and group, links not followed; "missing".
[[nodiscard]] std::string rightsOf(const std::string& path);

/// The lines that begin with one of the starts.
[[nodiscard]] Lines linesStarting(const std::vector<std::string>& starts);
[[nodiscard]] Lines linesStarting(const Lines& all, const std::vector<std::string>& starts);

/// A device on which the daemon may start: root is the daemon user and notifies itself.
class DaemonTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    /// The daemon's file, with these values in place of the device's own. Only for processes that have not
    /// read it yet.
    static void configureDaemon(const std::string& user, const std::string& notificationGroup,
                                const std::string& lines = "");

    /// A service's file; the owner is a script that writes down its events.
    void configure(const std::string& id, const std::string& lines = "") const;
    /// Its owner is a library that throws.
    void configureThrowing(const std::string& id, const std::string& lines = "") const;
    static void ownerThrows(const std::string& event, const std::string& kind, const std::string& text);
    /// What all owners were told, in order: "alpha start".
    [[nodiscard]] static std::vector<std::string> events();
    static void setNetwork(const std::string& printed);

    [[nodiscard]] static const testsupport::Sandbox& sandbox() {
        return testsupport::TestDevice::get().sandbox();
    }
    [[nodiscard]] static std::string lockFile() { return sandbox().path("keywardd.lock"); }
    [[nodiscard]] static std::string pidFile() { return sandbox().path("keywardd.pid"); }
    [[nodiscard]] static std::string pipes() { return testsupport::TestDevice::get().pipesDirectory(); }
    [[nodiscard]] static std::string keyward() { return testsupport::TestDevice::get().keywardDirectory(); }
    [[nodiscard]] static std::string fifo() { return pipes() + "/notification.signal"; }
};

/// The same in a process that has read nothing yet: for death tests.
class FreshDaemonTest : public DaemonTest {
  protected:
    void SetUp() override;
    void TearDown() override {}
};

/// In a forked child only: /run is this folder of the sandbox, with "ready" in it.
void useOwnRun(const std::string& folder);

/// In a process of a death test only: its log follows on standard error when it exits, as "<severity> text".
void tellLogAtExit();

}  // namespace daemontest
