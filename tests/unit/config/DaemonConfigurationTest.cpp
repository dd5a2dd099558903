#include "config/DaemonConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "testsupport/Sandbox.h"
#include "testsupport/TestDevice.h"

namespace {

using keywarden::DaemonConfiguration;
using testsupport::TestDevice;

const std::string kRequired =
    "keywardDirectory /data\n"
    "notificationGroup notify\n"
    "serviceConfigDirectory /etc/services\n"
    "namePipesDirectory /run/p/\n"
    "daemonUser keyuser\n"
    "scriptsDirectory /usr/scripts\n"
    "lockFile /run/a.lock\n"
    "pidFile /run/a.pid\n";

constexpr const char* kBad = "Bad daemon configuration file : ";

class DaemonConfigurationFile : public testing::Test {
  protected:
    [[nodiscard]] DaemonConfiguration read(const std::string& content) const {
        return DaemonConfiguration(sandbox.write("config.daemon", content));
    }

    template <typename Expected = std::runtime_error>
    [[nodiscard]] std::string failure(const std::string& content) const {
        return failureOf<Expected>(sandbox.write("config.daemon", content));
    }

    template <typename Expected = std::runtime_error>
    static std::string failureOf(const std::string& path) {
        try {
            const DaemonConfiguration configuration(path);
        } catch (const Expected& error) {
            return error.what();
        }
        return "(none)";
    }

    testsupport::Sandbox sandbox;
};

/// The required keys with another line in the place of the daemon user's.
std::string withUser(const std::string& line) {
    std::string text = kRequired;
    return text.replace(text.find("daemonUser keyuser\n"), 19, line);
}

TEST_F(DaemonConfigurationFile, RequiredKeysAloneLoadAndTheRestIs0) {
    const std::string path = sandbox.write("config.daemon", kRequired);
    const DaemonConfiguration configuration(path);
    EXPECT_EQ(configuration.getNotificationGroup(), "notify");
    EXPECT_EQ(configuration.getServiceConfigDirectory(), "/etc/services");
    EXPECT_EQ(configuration.getDaemonUser(), "keyuser");
    EXPECT_EQ(configuration.getScriptsDirectory(), "/usr/scripts");
    EXPECT_EQ(configuration.getLockFile(), "/run/a.lock");
    EXPECT_EQ(configuration.getPidFile(), "/run/a.pid");
    EXPECT_EQ(configuration.getMinDateForGeneratingCert(), 0);
    EXPECT_EQ(configuration.getTimeDriftSleepTime(), 0);
    EXPECT_EQ(configuration.getTimeDriftThresholdValue(), 0);
}

TEST_F(DaemonConfigurationFile, MissingFileFails) {
    const std::string path = sandbox.path("missing");
    try {
        const DaemonConfiguration configuration(path);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "Failed to open configuration file : " + path);
    }
}

TEST_F(DaemonConfigurationFile, OnlyLockAndPidFileReportsTheSixOthersInOrder) {
    EXPECT_EQ(failure("lockFile /l\npidFile /p\n"),
              std::string(kBad) +
                  "'keywardDirectory' is not defined; 'notificationGroup' is not defined; "
                  "'serviceConfigDirectory' is not defined; 'namePipesDirectory' is not defined; "
                  "'daemonUser' is not defined; 'scriptsDirectory' is not defined; ");
}

TEST_F(DaemonConfigurationFile, EmptyFileReportsAllEightInOrder) {
    EXPECT_EQ(failure(""),
              std::string(kBad) +
                  "'keywardDirectory' is not defined; 'notificationGroup' is not defined; "
                  "'serviceConfigDirectory' is not defined; 'namePipesDirectory' is not defined; "
                  "'daemonUser' is not defined; 'scriptsDirectory' is not defined; "
                  "'lockFile' is not defined; 'pidFile' is not defined; ");
}

TEST_F(DaemonConfigurationFile, BinaryFileReportsTheMissingKeys) {
    EXPECT_NE(failure(std::string("\x7f\0ELF \0\xff\n\xfe\r \x01", 13)).find("'pidFile' is not defined; "),
              std::string::npos);
}

TEST_F(DaemonConfigurationFile, WhatIsNoRegularFileFailsWithoutWaiting) {
    const std::string fifo = sandbox.path("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
    for (const std::string& path : {fifo, sandbox.path(), std::string("/dev/zero")})
        EXPECT_EQ(failureOf(path), "Failed to open configuration file : " + path);
}

TEST_F(DaemonConfigurationFile, FileBeyondOneMebibyteFails) {
    const std::size_t limit = std::size_t{1024} * 1024;
    EXPECT_EQ(failure(kRequired + std::string(limit - kRequired.size(), '#')), "(none)");
    EXPECT_EQ(failure(kRequired + std::string(limit + 1 - kRequired.size(), '#')),
              "Failed to open configuration file : " + sandbox.path("config.daemon"));
}

TEST_F(DaemonConfigurationFile, SpacesBeforeTheValueGoWithIt) {
    EXPECT_EQ(read(withUser("daemonUser   keyuser\n")).getDaemonUser(), "keyuser");
}

TEST_F(DaemonConfigurationFile, InnerSpacesOfTheValueStay) {
    EXPECT_EQ(read(withUser("daemonUser key  user \t\n")).getDaemonUser(), "key  user");
}

TEST_F(DaemonConfigurationFile, LineWithAnEqualsSignSetsNothing) {
    EXPECT_EQ(failure(withUser("daemonUser=keyuser\n")), std::string(kBad) + "'daemonUser' is not defined; ");
}

TEST_F(DaemonConfigurationFile, TabIsNoSeparator) {
    EXPECT_EQ(failure(withUser("daemonUser\tkeyuser\n")),
              std::string(kBad) + "'daemonUser' is not defined; ");
}

TEST_F(DaemonConfigurationFile, KeyOfAnotherCaseSetsNothing) {
    EXPECT_EQ(failure(withUser("daemonuser keyuser\n")), std::string(kBad) + "'daemonUser' is not defined; ");
}

TEST_F(DaemonConfigurationFile, IndentedLineWithTrailingCommentSetsNothing) {
    EXPECT_EQ(failure(withUser("  daemonUser keyuser # who\n")),
              std::string(kBad) + "'daemonUser' is not defined; ");
    EXPECT_EQ(read(withUser("daemonUser keyuser   # who\n")).getDaemonUser(), "keyuser");
    EXPECT_EQ(read(withUser("  daemonUser keyuser\n")).getDaemonUser(), "keyuser");
}

TEST_F(DaemonConfigurationFile, FirstLineOfAKeyCounts) {
    EXPECT_EQ(read(withUser("daemonUser first\ndaemonUser second\n")).getDaemonUser(), "first");
}

TEST_F(DaemonConfigurationFile, UnknownKeysAreIgnored) {
    EXPECT_EQ(read("unknown value\n" + kRequired).getPidFile(), "/run/a.pid");
}

TEST_F(DaemonConfigurationFile, MinimumDateIsRead) {
    EXPECT_EQ(read(kRequired + "minDateForGeneratingCert 1700000000\n").getMinDateForGeneratingCert(),
              1700000000);
    EXPECT_EQ(read(kRequired + "minDateForGeneratingCert -5 days\n").getMinDateForGeneratingCert(), -5);
    EXPECT_EQ(
        read(kRequired + "minDateForGeneratingCert +9223372036854775807\n").getMinDateForGeneratingCert(),
        INT64_MAX);
}

TEST_F(DaemonConfigurationFile, MinimumDateThatIsNoNumberFails) {
    EXPECT_EQ(failure<std::invalid_argument>(kRequired + "minDateForGeneratingCert soon\n"), "stoll");
}

TEST_F(DaemonConfigurationFile, MinimumDateOutOfRangeFails) {
    EXPECT_EQ(failure<std::out_of_range>(kRequired + "minDateForGeneratingCert 9223372036854775808\n"),
              "stoll");
}

TEST_F(DaemonConfigurationFile, BadNumberIsReportedBeforeMissingKeys) {
    EXPECT_EQ(failure<std::invalid_argument>("minDateForGeneratingCert soon\n"), "stoll");
}

TEST_F(DaemonConfigurationFile, OnlyExactlyYesContinuesOnAServiceFailure) {
    const auto isOn = [this](const std::string& line) {
        return DaemonConfiguration(sandbox.write("config.daemon", kRequired + line + "\n"))
            .isContinueOnServiceFailure();
    };
    EXPECT_TRUE(isOn("continueOnServiceFailure yes"));
    EXPECT_TRUE(isOn("continueOnServiceFailure   yes  # for now"));
    for (const char* const line :
         {"", "continueOnServiceFailure", "continueOnServiceFailure no", "continueOnServiceFailure Yes",
          "continueOnServiceFailure YES", "continueOnServiceFailure yes please", "continueOnServiceFailure 1",
          "continueOnServiceFailure true", "continueonservicefailure yes", "continueOnServiceFailure\tyes",
          "continueOnServiceFailure no\ncontinueOnServiceFailure yes"})
        EXPECT_FALSE(isOn(line)) << line;
}

TEST_F(DaemonConfigurationFile, DriftValuesAreReadAndTrailingTextIgnored) {
    const DaemonConfiguration configuration(
        sandbox.write("config.daemon", kRequired + "TimeDriftSleepTime 30abc\nTimeDriftThresholdValue -7\n"));
    EXPECT_EQ(configuration.getTimeDriftSleepTime(), 30);
    EXPECT_EQ(configuration.getTimeDriftThresholdValue(), -7);
}

TEST_F(DaemonConfigurationFile, DriftValueThatIsNoNumberFailsUnderTheSameNameForBoth) {
    const std::string text =
        "Std exception invalid argument caught while getting the value for TimeDriftSleepTime in api: stoi";
    EXPECT_EQ(failure(kRequired + "TimeDriftSleepTime abc\n"), text);
    EXPECT_EQ(failure(kRequired + "TimeDriftThresholdValue abc\n"), text);
}

TEST_F(DaemonConfigurationFile, DriftValueOutOfRangeFailsUnderTheSameNameForBoth) {
    const std::string text =
        "Std exception out of range caught while getting the value for TimeDriftSleepTime in api: stoi";
    EXPECT_EQ(failure(kRequired + "TimeDriftSleepTime 2147483648\n"), text);
    EXPECT_EQ(failure(kRequired + "TimeDriftThresholdValue -2147483649\n"), text);
}

TEST(DaemonConfigurationInstance, FoldersComeAsTheFileGivesThem) {
    EXPECT_EQ(DaemonConfiguration::getKeywardDirectory(), TestDevice::get().keywardDirectory());
    EXPECT_EQ(DaemonConfiguration::getNamePipesDirectory(), TestDevice::get().pipesDirectory());
    EXPECT_EQ(&DaemonConfiguration::getInstance(), &DaemonConfiguration::getInstance());
}

// The instance is made once in a program. Death tests run before all others, so these fork a program that has
// made none.
class DaemonConfigurationFreshDeathTest : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "fast"); }
    void TearDown() override { configure(original_); }

    static void configure(const std::string& content) {
        TestDevice::get().sandbox().write("config.daemon", content);
    }

    static void print(const std::function<std::string()>& get) {
        try {
            const std::string value = get();
            std::cerr << "got {" << value << "} ";
        } catch (const std::runtime_error& error) {
            std::cerr << "runtime error {" << error.what() << "} ";
        }
    }

    [[noreturn]] static void printFolders(const std::string& content) {
        configure(content);
        print(DaemonConfiguration::getKeywardDirectory);
        print(DaemonConfiguration::getNamePipesDirectory);
        ::_exit(0);
    }

  private:
    const std::string original_ =
        testsupport::Sandbox::read(TestDevice::get().sandbox().path("config.daemon"));
};

TEST_F(DaemonConfigurationFreshDeathTest, RuntimeErrorIsToldByBothFolders) {
    EXPECT_EXIT(
        printFolders(withUser("")), testing::ExitedWithCode(0),
        testing::HasSubstr("runtime error {Runtime error caught while getting keywardd directory: Bad daemon "
                           "configuration file : 'daemonUser' is not defined; } runtime error {Runtime error "
                           "caught while getting named pipes directory: Bad daemon configuration file : "
                           "'daemonUser' is not defined; } "));
}

TEST_F(DaemonConfigurationFreshDeathTest, StandardExceptionIsToldByBothFolders) {
    EXPECT_EXIT(
        printFolders(kRequired + "minDateForGeneratingCert soon\n"), testing::ExitedWithCode(0),
        testing::HasSubstr(
            "runtime error {Std exception caught while getting keywardd directory: stoll} runtime error "
            "{Standard exception caught while getting named pipes directory: stoll} "));
}

TEST_F(DaemonConfigurationFreshDeathTest, InstanceIsTriedAgainAfterAFailureAndThenKept) {
    const auto scenario = [] {
        configure("");
        print(DaemonConfiguration::getNamePipesDirectory);
        configure(kRequired);
        print(DaemonConfiguration::getNamePipesDirectory);
        print(DaemonConfiguration::getKeywardDirectory);
        configure("");
        print(DaemonConfiguration::getKeywardDirectory);
        ::_exit(0);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0),
                testing::HasSubstr("is not defined; } got {/run/p/} got {/data} got {/data} "));
}

TEST_F(DaemonConfigurationFreshDeathTest, InstanceCanStillBeAskedWhileTheProgramExits) {
    // Long enough to stand in memory of its own, which a destroyed instance would have given back.
    const std::string folder = "/" + std::string(200, 'x');
    const auto scenario = [&folder] {
        configure("keywardDirectory " + folder + "\n" + kRequired);
        // Runs after what getInstance() registers for the exit, and ends it: the device is the parent's.
        const auto atExit = [] {
            print(DaemonConfiguration::getKeywardDirectory);
            ::_exit(0);
        };
        ASSERT_EQ(std::atexit(atExit), 0);
        static_cast<void>(DaemonConfiguration::getInstance());
        std::exit(0);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0), testing::HasSubstr("got {" + folder + "} "));
}

}  // namespace
