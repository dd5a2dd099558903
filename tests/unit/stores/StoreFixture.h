#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "config/ExternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "stores/CertificateAuthority.h"
#include "stores/TrustedCertificate.h"
#include "support/Tools.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestDevice.h"

/// A service of the test's own, named like the test, with the folders that a service makes for its stores.
class StoreTest : public testing::Test {
  protected:
    static constexpr const char* kGroup = "daemon";

    StoreTest() {
        configure("");
        for (const std::string& root : {device().keywardDirectory(), device().pipesDirectory()})
            std::filesystem::create_directories(root + "/" + service_);
        testsupport::CapturedLog::clear();
    }
    ~StoreTest() override {
        for (const std::string& root : {device().keywardDirectory(), device().pipesDirectory()})
            std::filesystem::remove_all(root + "/" + service_);
    }

    static testsupport::TestDevice& device() { return testsupport::TestDevice::get(); }

    /// Further lines of the service's configuration file.
    void configure(const std::string& lines) { configureWithGroup(kGroup, lines); }
    void configureWithGroup(const std::string& group, const std::string& lines) {
        device().writeService(service_, "cnfFile /dev/null\nca yes\ntrustedClients yes\nmanagmentGroup " +
                                            group + "\n" + lines);
        configuration_ = std::make_unique<keywarden::ServiceConfiguration>(service_);
    }

    [[nodiscard]] keywarden::CertificateAuthority authorities() const {
        return keywarden::CertificateAuthority(*configuration_);
    }
    [[nodiscard]] keywarden::TrustedCertificate clients() const {
        return keywarden::TrustedCertificate(*configuration_);
    }
    [[nodiscard]] keywarden::ExternalCertificatesAccessor paths(const std::string& store) const {
        return {service_, store};
    }

    /// A new certificate with a key of its own: two of one name differ.
    [[nodiscard]] static std::string pem(const std::string& commonName, bool ca = true) {
        testsupport::CertificateOptions options;
        options.commonName = commonName;
        options.ca = ca;
        return testsupport::makeCertificate(options).certificatePem;
    }
    /// Writes a text into a file to add from.
    [[nodiscard]] std::string source(const std::string& content) {
        return sandbox_.write("source" + std::to_string(sources_++), content);
    }

    [[nodiscard]] static std::string groupOf(const std::string& path) {
        const auto gid = keywarden::Tools::getRights(path).gid;
        return gid == keywarden::Tools::getGroupId(kGroup) ? kGroup : std::to_string(gid);
    }
    static void expectRights(const std::string& path, unsigned mode) {
        EXPECT_EQ(testsupport::Sandbox::mode(path), mode) << path;
        EXPECT_EQ(groupOf(path), kGroup) << path;
    }

    const std::string service_ = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::unique_ptr<keywarden::ServiceConfiguration> configuration_;
    testsupport::Sandbox sandbox_;

  private:
    int sources_ = 0;
};
