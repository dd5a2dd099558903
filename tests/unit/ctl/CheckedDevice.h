#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ctl/check/Report.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Sandbox.h"

/// A proper device to make mistakes on: its configuration, accounts, scripts and folders. "~" stands for its
/// folder in every text given or returned. A check runs in a process with mounts of its own, so that nothing
/// of the machine and of other tests is met.
class CheckedDevice {
  public:
    static constexpr unsigned kUser = 4242;  ///< keyuser, and the group of this name
    static constexpr unsigned kManagement = 4251;
    static constexpr unsigned kKeys = 4252;

    // Lines of the files as they are at first; a line appended is the next one.
    static constexpr unsigned kDaemonLines = 8;
    static constexpr unsigned kServiceLines = 7;
    static constexpr unsigned kSettingsLines = 8;

    CheckedDevice();

    [[nodiscard]] const testsupport::Sandbox& sandbox() const { return sandbox_; }
    /// A file below the folder.
    void write(const std::string& name, const std::string& content, unsigned mode = 0644) const;
    void remove(const std::string& name) const;
    /// A folder, made when it is missing.
    void folder(const std::string& name, unsigned mode, unsigned user, unsigned group) const;
    void rights(const std::string& name, unsigned mode, unsigned user, unsigned group) const;
    void setLine(const std::string& name, unsigned line, const std::string& text) const;
    void append(const std::string& name, const std::string& line) const;

    void setGroups(const std::string& content) const { accounts_.write("group", content); }
    void setUsers(const std::string& content) const { accounts_.write("passwd", content); }
    void setClock(std::int64_t now) { now_ = now; }
    void setReadyFolder(bool there) { hasReadyFolder_ = there; }
    /// Whoever asks; root unless told otherwise.
    void askAsNobody() { asNobody_ = true; }

    /// The server store of the service "web" as the daemon leaves it; returns the id.
    std::string storePair(const testsupport::CertificateOptions& options) const;
    /// A certificate in its "ca" or "client" store, with its folders.
    std::string storeTrusted(const std::string& store, const testsupport::CertificateOptions& options) const;

    /// Every finding as its line, without the advice. Nothing where the machine refuses private mounts.
    [[nodiscard]] std::vector<std::string> check(const std::vector<std::string>& services = {}) const;
    /// What `body` returns, on the device.
    [[nodiscard]] std::string on(const std::function<std::string()>& body) const;

    [[nodiscard]] static std::string root();
    [[nodiscard]] static std::string withRoot(std::string text);
    [[nodiscard]] static std::string withoutRoot(std::string text);

  private:
    void mount() const;

    testsupport::Sandbox sandbox_;
    testsupport::Sandbox accounts_;
    std::optional<std::int64_t> now_;
    bool hasReadyFolder_ = true;
    bool asNobody_ = false;
};

/// The lines of a report's text without advice and summary. Each finding has its advice: one without throws.
[[nodiscard]] std::vector<std::string> findingLines(const std::string& text);

/// Whether a check can be made on this machine; says so when not.
[[nodiscard]] bool canCheckDevices();

#define REQUIRE_CHECKED_DEVICES() \
    if (!canCheckDevices())       \
    GTEST_SKIP() << "NOT CHECKED: this machine refuses private mounts, so there is no device to check"
