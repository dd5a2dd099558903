#pragma once

#include <memory>
#include <string>
#include <vector>

#include "config/ConfigValues.h"
#include "ctl/check/ConfigLines.h"
#include "ctl/check/Identity.h"
#include "ctl/check/Report.h"

namespace keywarden {
class ServiceConfiguration;
}

namespace keywardctl::check {

using keywarden::ConfigKey;
using keywarden::DaemonKey;
using keywarden::ServiceKey;
using keywarden::SettingsKey;

[[nodiscard]] inline std::string quoted(const ConfigKey& key) {
    return quoted(key.name());
}

/// One configuration file: its lines, and its values as the daemon asks for them.
struct CheckedFile {
    ConfigLines lines;
    keywarden::ConfigValues values{{}};

    CheckedFile() = default;
    explicit CheckedFile(ConfigLines fileLines) : lines(std::move(fileLines)), values(lines.values()) {}

    [[nodiscard]] Place at(const ConfigKey& key) const { return {lines.file(), lines.lineOf(key.name())}; }
    [[nodiscard]] Place whole() const { return {lines.file()}; }
};

struct CheckedService {
    std::string id;
    CheckedFile file;
};

/// What is looked at: the daemon's file, the account it becomes and the services that were asked for.
struct Subject {
    CheckedFile daemon;
    std::string user;
    Identity identity{""};
    std::vector<CheckedService> services;
    std::vector<std::string> allServices;  ///< as the daemon lists them
};

}  // namespace keywardctl::check
