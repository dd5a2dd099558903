#pragma once

#include <cstdint>
#include <string>

namespace keywarden {

/// The daemon's own configuration file, read once, at the first use, and never again.
class DaemonConfiguration {
  public:
    /// Throws what the reading constructor throws; the next call then reads the file again. The instance is
    /// never destroyed, since other threads may still ask it while the process exits.
    static DaemonConfiguration& getInstance();

    DaemonConfiguration(const DaemonConfiguration&) = delete;
    DaemonConfiguration& operator=(const DaemonConfiguration&) = delete;

    /// Folders are as the file gives them: no slash is added or taken away.
    /// A failure to get the instance is rethrown as std::runtime_error.
    static std::string getKeywardDirectory();
    static std::string getNamePipesDirectory();

    [[nodiscard]] std::string getNotificationGroup() const { return notificationGroup_; }
    [[nodiscard]] std::string getServiceConfigDirectory() const { return serviceConfigDirectory_; }
    [[nodiscard]] std::string getDaemonUser() const { return daemonUser_; }
    [[nodiscard]] std::string getScriptsDirectory() const { return scriptsDirectory_; }
    [[nodiscard]] std::string getLockFile() const { return lockFile_; }
    [[nodiscard]] std::string getPidFile() const { return pidFile_; }

    /// Seconds since the epoch.
    [[nodiscard]] std::int64_t getMinDateForGeneratingCert() const { return minDateForGeneratingCert_; }
    /// Seconds between two looks of the monitor; 0 when not set.
    [[nodiscard]] std::int32_t getTimeDriftSleepTime() const { return timeDriftSleepTime_; }
    /// Seconds of drift that count as a change of the time; 0 when not set.
    [[nodiscard]] std::int32_t getTimeDriftThresholdValue() const { return timeDriftThresholdValue_; }

    /// Whether a service that fails in a notification is passed over; else its failure ends the daemon.
    [[nodiscard]] bool isContinueOnServiceFailure() const { return continueOnServiceFailure_; }

    /// Reads one file. Throws std::runtime_error when it cannot be opened, lacks a required key or has a
    /// drift value that is no number, and std::invalid_argument or std::out_of_range for such a minimum date.
    explicit DaemonConfiguration(const std::string& path);

  private:
    std::string keywardDirectory_;
    std::string notificationGroup_;
    std::string serviceConfigDirectory_;
    std::int64_t minDateForGeneratingCert_ = 0;
    std::string namePipesDirectory_;
    std::string daemonUser_;
    std::string scriptsDirectory_;
    std::string lockFile_;
    std::string pidFile_;
    std::int32_t timeDriftSleepTime_ = 0;
    std::int32_t timeDriftThresholdValue_ = 0;
    bool continueOnServiceFailure_ = false;
};

}  // namespace keywarden
