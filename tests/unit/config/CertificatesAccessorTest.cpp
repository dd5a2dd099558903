#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <iostream>

#include "config/DaemonConfiguration.h"
#include "config/ExternalCertificatesAccessor.h"
#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestDevice.h"

namespace {

using keywarden::ExternalCertificatesAccessor;
using keywarden::InternalCertificatesAccessor;
using testsupport::Sandbox;
using testsupport::TestDevice;

/// Written over the device's own file.
void configure(const std::string& keyward, const std::string& pipes) {
    TestDevice::get().sandbox().write("config.daemon",
                                      "keywardDirectory " + keyward + "\nnamePipesDirectory " + pipes +
                                          "\nnotificationGroup g\nserviceConfigDirectory /s\n"
                                          "daemonUser u\nscriptsDirectory /x\nlockFile /l\n"
                                          "pidFile /p\n");
}

std::string paths(const ExternalCertificatesAccessor& store) {
    return store.certificateDirectoryPath() + "\n" + store.cachedDirectoryPath() + "\n" +
           store.tmpDirectoryPath() + "\n" + store.listPath() + "\n" + store.cnMapPath() + "\n" +
           store.certPath("A1") + "\n" + store.certInfoPath("A1") + "\n" + store.certDetailsPath("A1") +
           "\n" + store.certOverwrittenDataPath("A1") + "\n";
}

std::string paths(const InternalCertificatesAccessor& store) {
    return store.certificateDirectoryPath() + "\n" + store.cachedDirectoryPath() + "\n" +
           store.tmpDirectoryPath() + "\n" + store.activePath() + "\n" + store.csrPath() + "\n" +
           store.csrNetworkPath() + "\n" + store.csrKeyPath() + "\n" + store.certPath("A1") + "\n" +
           store.certKeyPath("A1") + "\n" + store.certNetworkPath("A1") + "\n" + store.certInfoPath("A1") +
           "\n" + store.certDetailsPath("A1") + "\n" + store.certOverwrittenDataPath("A1") + "\n";
}

std::string externalPaths(const std::string& keyward, const std::string& pipes) {
    return keyward + "/web/client/\n" +                         //
           keyward + "/web/client/.cacheddata\n" +              //
           pipes + "/web/client\n" +                            //
           keyward + "/web/client/.cacheddata/list.txt\n" +     //
           pipes + "/web/client/id_cn.map\n" +                  //
           keyward + "/web/client/A1\n" +                       //
           pipes + "/web/client/A1.info\n" +                    //
           pipes + "/web/client/A1.detail\n" +                  //
           keyward + "/web/client/.cacheddata/A1.overwrite\n";  //
}

std::string internalPaths(const std::string& keyward, const std::string& pipes) {
    return keyward + "/web/server/\n" +                         //
           keyward + "/web/server/.cacheddata\n" +              //
           pipes + "/web/server\n" +                            //
           keyward + "/web/server/.cacheddata/active.txt\n" +   //
           keyward + "/web/server/.cacheddata/csr.csr\n" +      //
           pipes + "/web/server/csr.network\n" +                //
           pipes + "/web/server/csr.key\n" +                    //
           keyward + "/web/server/A1\n" +                       //
           keyward + "/web/server/A1.key\n" +                   //
           keyward + "/web/server/.cacheddata/A1.network\n" +   //
           pipes + "/web/server/A1.info\n" +                    //
           pipes + "/web/server/A1.detail\n" +                  //
           keyward + "/web/server/.cacheddata/A1.overwrite\n";  //
}

// The folders are read once in a program. Death tests run before all others, so these fork a program that has
// read none.
class AccessorPathsDeathTest : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "fast"); }
    void TearDown() override { TestDevice::get().sandbox().write("config.daemon", original_); }

    [[noreturn]] static void comparePaths(const std::string& keyward, const std::string& pipes) {
        configure(keyward, pipes);
        const bool same =
            paths(ExternalCertificatesAccessor("web", "client")) == externalPaths(keyward, pipes) &&
            paths(InternalCertificatesAccessor("web", "server")) == internalPaths(keyward, pipes);
        std::cerr << paths(ExternalCertificatesAccessor("web", "client"))
                  << paths(InternalCertificatesAccessor("web", "server"));
        ::_exit(same ? 0 : 1);
    }

  private:
    const std::string original_ = Sandbox::read(TestDevice::get().sandbox().path("config.daemon"));
};

TEST_F(AccessorPathsDeathTest, FoldersAreComposedAsTheyStand) {
    EXPECT_EXIT(comparePaths("/data", "/run/p"), testing::ExitedWithCode(0),
                "/data/web/client/A1\n/run/p/web/client/A1.info");
}

TEST_F(AccessorPathsDeathTest, SlashAtTheEndOfAFolderIsDoubledInEveryPath) {
    EXPECT_EXIT(comparePaths("/data/", "/run/p/"), testing::ExitedWithCode(0),
                "/data//web/client/A1\n/run/p//web/client/A1.info");
}

TEST_F(AccessorPathsDeathTest, FolderThatIsNotConfiguredFails) {
    const auto scenario = [] {
        configure("", "/run/p");
        try {
            const InternalCertificatesAccessor store("web", "server");
        } catch (const std::runtime_error& error) {
            std::cerr << error.what();
        }
        ::_exit(0);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0),
                "Runtime error caught while getting keywardd directory: Bad daemon configuration file : "
                "'keywardDirectory' is not defined; ");
}

TEST(CertificatesAccessor, ExternalPathsFollowTheDevice) {
    const auto& device = TestDevice::get();
    EXPECT_EQ(paths(ExternalCertificatesAccessor("web", "client")),
              externalPaths(device.keywardDirectory(), device.pipesDirectory()));
    EXPECT_EQ(ExternalCertificatesAccessor("pki", "ca").certPath("x"),
              device.keywardDirectory() + "/pki/ca/x");
}

TEST(CertificatesAccessor, InternalPathsFollowTheDevice) {
    const auto& device = TestDevice::get();
    EXPECT_EQ(paths(InternalCertificatesAccessor("web", "server")),
              internalPaths(device.keywardDirectory(), device.pipesDirectory()));
}

TEST(CertificatesAccessor, ConfigurationStandsForItsIdentifierNotItsName) {
    TestDevice::get().writeService("web", "cnfFile /c\nname other\n");
    const keywarden::ServiceConfiguration web("web");
    EXPECT_EQ(paths(ExternalCertificatesAccessor(web, "client")),
              paths(ExternalCertificatesAccessor("web", "client")));
    EXPECT_EQ(paths(InternalCertificatesAccessor(web, "server")),
              paths(InternalCertificatesAccessor("web", "server")));
}

class ActiveFile : public testing::Test {
  protected:
    static std::string activeAfterWriting(const std::string& content) {
        const auto& device = TestDevice::get();
        device.sandbox().write("keyward/act/server/.cacheddata/active.txt", content);
        return InternalCertificatesAccessor("act", "server").getActive();
    }
    void TearDown() override { std::filesystem::remove_all(TestDevice::get().keywardDirectory() + "/act"); }
};

TEST_F(ActiveFile, WholeContentWithoutALineEnd) {
    EXPECT_EQ(activeAfterWriting("1234abcd.0"), "1234abcd.0");
}

TEST_F(ActiveFile, FirstLineOnlyAndWithoutItsLineFeed) {
    EXPECT_EQ(activeAfterWriting("1234abcd.0\nsecond\n"), "1234abcd.0");
    EXPECT_EQ(activeAfterWriting(" a b \r\nsecond"), " a b \r");
    EXPECT_EQ(activeAfterWriting("\nsecond"), "");
    EXPECT_EQ(activeAfterWriting(""), "");
}

TEST_F(ActiveFile, MissingFileOrFolderInItsPlaceGivesNothing) {
    const InternalCertificatesAccessor store("act", "server");
    EXPECT_EQ(store.getActive(), "");
    std::filesystem::create_directories(store.activePath());
    EXPECT_EQ(store.getActive(), "");
}

}  // namespace
