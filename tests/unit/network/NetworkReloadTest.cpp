#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "network/NetworkConfiguration.h"
#include "support/Debug.h"
#include "support/StopRequest.h"
#include "tests/unit/network/CapturedTraces.h"
#include "tests/unit/network/NetworkScript.h"

using keywarden::NetworkConfiguration;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::Sandbox;

namespace {

using namespace std::chrono_literals;
using Map = std::map<std::string, std::string>;
using Lines = std::vector<LogLine>;

class NetworkReload : public NetworkScript {
  protected:
    void SetUp() override {
        NetworkScript::SetUp();
        device.setNetwork("fqdn.0 before\n");
        network.reload();
    }

    [[nodiscard]] std::string failed(const std::string& reason) const {
        return "Runtime exception caught during executing " + scriptPath() + " : " + reason;
    }

    const Map before{{"fqdn.0", "before"}};
    NetworkConfiguration network;
};

/// While it lives, the debug trace that has the marker in it throws.
class ThrowingTrace : private std::streambuf {
  public:
    ThrowingTrace(std::string marker, std::function<void()> thrower)
        : marker_(std::move(marker)), thrower_(std::move(thrower)), previous_(std::cerr.rdbuf(this)) {
        std::cerr.exceptions(std::ios::badbit);
        keywarden::gDebug = true;
    }
    ThrowingTrace(const ThrowingTrace&) = delete;
    ThrowingTrace& operator=(const ThrowingTrace&) = delete;
    ~ThrowingTrace() override {
        keywarden::gDebug = false;
        std::cerr.exceptions(std::ios::goodbit);
        std::cerr.rdbuf(previous_);
        std::cerr.clear();
    }

  private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        if (std::string(text, static_cast<std::size_t>(size)).find(marker_) != std::string::npos) {
            // The stream is bad from now on: later traces must not reach it.
            keywarden::gDebug = false;
            thrower_();
        }
        return size;
    }

    std::string marker_;
    std::function<void()> thrower_;
    std::streambuf* previous_;
};

struct WithoutText : std::exception {
    [[nodiscard]] const char* what() const noexcept override { return ""; }
};

}  // namespace

TEST_F(NetworkReload, InstanceIsTheSameAtEveryUse) {
    NetworkConfiguration& instance = NetworkConfiguration::getInstance();
    EXPECT_EQ(&instance, &NetworkConfiguration::getInstance());
}

TEST_F(NetworkReload, ConstructionRunsTheScriptOnce) {
    const std::string runs = device.sandbox().path("runs");
    setScript("#!/bin/sh\necho run >>'" + runs + "'\necho fqdn.0 fresh\n");
    NetworkConfiguration fresh;
    EXPECT_EQ((std::vector<std::string>{"fresh"}), fresh.getDNS());
    EXPECT_EQ(-1, fresh.interfaceIndex("eth0"));
    EXPECT_EQ("run\n", Sandbox::read(runs));
}

TEST_F(NetworkReload, ScriptGetsNoArgumentsAndNoInput) {
    setScript("#!/bin/sh\necho \"fqdn.0 arguments:$#\"\necho \"fqdn.1 input:$(wc -c)\"\n");
    EXPECT_EQ((Map{{"fqdn.0", "arguments:0"}, {"fqdn.1", "input:0"}}), network.reload());
}

TEST_F(NetworkReload, TracesGiveTheStandardErrorBeforeTheStandardOutput) {
    setScript("#!/bin/sh\necho interface.0 eth0\necho careful >&2\necho fqdn.0 a\n");
    const CapturedTraces traces;
    network.reload();
    EXPECT_EQ(
        "Get network info ...\n"
        "careful\n\n"
        "interface.0 eth0\nfqdn.0 a\n\n"
        "Get network info Done.\n",
        traces.text());
}

TEST_F(NetworkReload, WithoutDebugNothingIsTraced) {
    const CapturedTraces traces;
    keywarden::gDebug = false;
    network.reload();
    EXPECT_EQ("", traces.text());
}

TEST_F(NetworkReload, MissingScriptIsLoggedAndKeepsTheMap) {
    ASSERT_EQ(0, std::rename(scriptPath().c_str(), (scriptPath() + ".away").c_str()));
    EXPECT_EQ(before, network.reload());
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      failed("Cannot run " + scriptPath() + ": No such file or directory")}}),
              CapturedLog::lines());
    EXPECT_EQ((std::vector<std::string>{"before"}), network.getDNS());
    ASSERT_EQ(0, std::rename((scriptPath() + ".away").c_str(), scriptPath().c_str()));
}

TEST_F(NetworkReload, ScriptThatMayNotBeExecutedIsLoggedAndKeepsTheMap) {
    setScript("#!/bin/sh\necho fqdn.0 a\n", 0644);
    EXPECT_EQ(before, network.reload());
    EXPECT_EQ(
        (Lines{{keywarden::SeverityError, failed("Cannot run " + scriptPath() + ": Permission denied")}}),
        CapturedLog::lines());
}

TEST_F(NetworkReload, FailureIsTracedBetweenStartAndEnd) {
    setScript("#!/bin/sh\n", 0644);
    const CapturedTraces traces;
    network.reload();
    EXPECT_EQ("Get network info ...\n" + failed("Cannot run " + scriptPath() + ": Permission denied") +
                  "\nGet network info Done.\n",
              traces.text());
}

TEST_F(NetworkReload, ScriptThatPrintsWithoutEndIsLoggedAndKeepsTheMap) {
    setScript("#!/bin/sh\necho fqdn.0 a\nhead -c 1048576 /dev/zero\n");
    EXPECT_EQ(before, network.reload());
    EXPECT_EQ((Lines{{keywarden::SeverityError, failed(scriptPath() + " printed more than 1048576 bytes")}}),
              CapturedLog::lines());
}

TEST_F(NetworkReload, ScriptThatHangsIsKilledAfterTenSecondsAndKeepsTheMap) {
    setScript("#!/bin/sh\necho fqdn.0 a\nexec sleep 60\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(before, network.reload());
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, 10s);
    EXPECT_LT(taken, 20s);
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      failed(scriptPath() + " did not end within 10 seconds and was killed")}}),
              CapturedLog::lines());
}

TEST_F(NetworkReload, ScriptEndedByAStopIsLoggedAndKeepsTheMap) {
    setScript("#!/bin/sh\necho fqdn.0 half\nexec sleep 60\n");
    // In a child, since a raised stop cannot be taken back.
    const auto stoppedReload = [this] {
        keywarden::StopRequest::raise();
        const bool kept = network.reload() == before;
        const bool told =
            CapturedLog::lines() ==
            Lines{{keywarden::SeverityError, failed(scriptPath() + " was ended by the stop of the daemon")}};
        std::_Exit(kept && told ? 42 : 1);
    };
    EXPECT_EXIT(stoppedReload(), testing::ExitedWithCode(42), "");
}

TEST_F(NetworkReload, ScriptThatFailsStillReplacesTheMapAndIsReported) {
    setScript("#!/bin/sh\necho fqdn.0 half\nexit 3\n");
    EXPECT_EQ((Map{{"fqdn.0", "half"}}), network.reload());
    EXPECT_EQ((Lines{{keywarden::SeverityWarning,
                      "The network script " + scriptPath() + " ended with exit status 3."}}),
              CapturedLog::lines());
}

TEST_F(NetworkReload, AnotherStandardExceptionIsLoggedAndKeepsTheMap) {
    setScript("#!/bin/sh\necho fqdn.0 the-marker\n");
    const ThrowingTrace trace("the-marker", [] { throw std::bad_alloc(); });
    EXPECT_EQ(before, network.reload());
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      "Std exception received during getting lock for reloading network information: "
                      "std::bad_alloc"}}),
              CapturedLog::lines());
}

TEST_F(NetworkReload, StandardExceptionWithoutATextIsAnUnknownError) {
    setScript("#!/bin/sh\necho fqdn.0 the-marker\n");
    const ThrowingTrace trace("the-marker", [] { throw WithoutText(); });
    EXPECT_EQ(before, network.reload());
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      "Std exception received during getting lock for reloading network information: "
                      "Unknown error"}}),
              CapturedLog::lines());
}

TEST_F(NetworkReload, AnythingElseThrownIsLoggedAndKeepsTheMap) {
    setScript("#!/bin/sh\necho fqdn.0 the-marker\n");
    const ThrowingTrace trace("the-marker", [] { throw 7; });
    EXPECT_EQ(before, network.reload());
    EXPECT_EQ((Lines{{keywarden::SeverityError,
                      "Unknown exception received during getting lock for reloading network information."}}),
              CapturedLog::lines());
}

TEST_F(NetworkReload, ReloadWorksAgainAfterAFailure) {
    setScript("#!/bin/sh\n", 0644);
    network.reload();
    setScript("#!/bin/sh\necho fqdn.0 again\n");
    EXPECT_EQ((Map{{"fqdn.0", "again"}}), network.reload());
}

TEST_F(NetworkReload, ReadersWaitWhileTheScriptRuns) {
    const std::string started = device.sandbox().path("started");
    const std::string go = device.sandbox().path("go");
    setScript("#!/bin/sh\n: >'" + started + "'\nwhile [ ! -e '" + go +
              "' ]; do sleep 0.02; done\necho fqdn.0 after\n");
    auto reload = std::async(std::launch::async, [this] { return network.reload(); });
    while (!Sandbox::exists(started))
        std::this_thread::sleep_for(5ms);
    auto reader = std::async(std::launch::async, [this] { return network.getDNS(); });
    EXPECT_EQ(std::future_status::timeout, reader.wait_for(200ms));
    device.sandbox().write("go", "");
    EXPECT_EQ((std::vector<std::string>{"after"}), reader.get());
    EXPECT_EQ((Map{{"fqdn.0", "after"}}), reload.get());
}

TEST_F(NetworkReload, ManyThreadsReadAndReloadTogether) {
    device.setNetwork(
        "interface.0 eth0\nmac.0 02:00:00:00:00:01\nipv4.0.0 10.0.0.5\nipv6.0.0 fd00::5\nfqdn.0 a\n");
    network.reload();
    std::vector<std::future<bool>> readers(4);
    for (auto& reader : readers) {
        reader = std::async(std::launch::async, [this] {
            bool right = true;
            for (int round = 0; round < 300; ++round) {
                right = right && network.isInterfaceExist("eth0") && !network.isInterfaceOff("eth0") &&
                        network.getInterfaceMAC("eth0") == "02:00:00:00:00:01" &&
                        network.getDNS().size() == 1;
            }
            return right;
        });
    }
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(5U, network.reload().size());
    for (auto& reader : readers)
        EXPECT_TRUE(reader.get());
}
