#include "support/ConfigurationPath.h"

#include <gtest/gtest.h>

#include "config/DaemonConfiguration.h"
#include "testsupport/Child.h"

namespace {

TEST(ConfigurationPath, IsTheFixedOne) {
    EXPECT_STREQ(keywarden::daemonConfigurationPath(), "/etc/keywarden/config.daemon");
}

TEST(ConfigurationPath, InstanceFailsWithoutTheFileUnderThatPath) {
    const auto text = testsupport::inPrivateMounts([] { testsupport::mountEmptyFolder("/etc"); },
                                                   []() -> std::string {
                                                       try {
                                                           keywarden::DaemonConfiguration::getInstance();
                                                       } catch (const std::runtime_error& error) {
                                                           return error.what();
                                                       }
                                                       return "no failure";
                                                   });
    if (!text)
        GTEST_SKIP() << "NOT CHECKED: the instance without its file";
    EXPECT_EQ(*text, "Failed to open configuration file : /etc/keywarden/config.daemon");
}

}  // namespace
