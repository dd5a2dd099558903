#pragma once

#include <gtest/gtest.h>

#include <string>

#include "network/NetworkConfiguration.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestDevice.h"

/// Tests that put a network script of their own in the device; the usual one is back afterwards.
class NetworkScript : public testing::Test {
  protected:
    void SetUp() override {
        device.setNetwork("");
        testsupport::CapturedLog::clear();
    }
    void TearDown() override {
        setScript(usualScript_);
        device.setNetwork("");
        keywarden::NetworkConfiguration::getInstance().reload();
    }

    [[nodiscard]] std::string scriptPath() const { return device.scriptsDirectory() + "/network.sh"; }
    void setScript(const std::string& text, unsigned mode = 0755) const {
        device.sandbox().write("scripts/network.sh", text, mode);
    }

    testsupport::TestDevice& device = testsupport::TestDevice::get();

  private:
    const std::string usualScript_ = testsupport::Sandbox::read(scriptPath());
};
