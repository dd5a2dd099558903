#include <algorithm>
#include <filesystem>

#include "ctl/check/Rules.h"
#include "support/FileStatus.h"

namespace keywardctl::check {

namespace {

namespace fs = std::filesystem;

std::string reasonOf(const std::string& path, const std::string& name) {
    const auto status = keywarden::linkStatusOfPath(path);
    if (name == ".conf")
        return "it has no name before '.conf'";
    if (status && status->isLink())
        return "it is a link";
    if (!status || !status->isRegular())
        return "it is no regular file";
    return "its name is not '<service>.conf' with that point as its first";
}

bool isService(const Subject& subject, const std::string& name) {
    const auto& all = subject.allServices;
    return std::any_of(all.begin(), all.end(),
                       [&name](const std::string& id) { return id + ".conf" == name; });
}

// A folder without ".conf" in its name was never meant to be a service.
bool isMeant(const std::string& path, const std::string& name) {
    const auto status = keywarden::statusOfPath(path);
    return !status || !status->isFolder() || name.find(".conf") != std::string::npos;
}

}  // namespace

void checkServiceFolder(const Subject& subject, Report& report) {
    const std::string folder = subject.daemon.values.text(DaemonKey::ServiceConfigDirectory);
    std::error_code error;
    std::vector<fs::path> entries;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        entries.push_back(entry->path());
    std::sort(entries.begin(), entries.end());
    for (const fs::path& entry : entries) {
        const std::string name = entry.filename().string();
        if (!isService(subject, name) && isMeant(entry.string(), name))
            report.add(Code::IgnoredFile, {entry.string()},
                       "the daemon takes this for no service: " + reasonOf(entry.string(), name),
                       "Rename it, or keep it elsewhere.");
    }
    if (!error && subject.allServices.empty())
        report.add(Code::NoService, {folder}, "there is no service file",
                   "The daemon does not start without a file '<service>.conf' in this folder.");
}

}  // namespace keywardctl::check
