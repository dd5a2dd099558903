#include <algorithm>
#include <filesystem>

#include "check/Rules.h"

namespace keywardctl::check {

namespace {

namespace fs = std::filesystem;

std::string reasonOf(const fs::directory_entry& entry, const std::string& name) {
    std::error_code ignored;
    if (name == ".conf")
        return "it has no name before '.conf'";
    if (entry.is_symlink(ignored))
        return "it is a link";
    if (!entry.is_regular_file(ignored))
        return "it is no regular file";
    return "its name is not '<service>.conf' with that point as its first";
}

bool isService(const Subject& subject, const std::string& name) {
    const auto& all = subject.allServices;
    return std::any_of(all.begin(), all.end(),
                       [&name](const std::string& id) { return id + ".conf" == name; });
}

// A folder without ".conf" in its name was never meant to be a service.
bool isMeant(const fs::directory_entry& entry, const std::string& name) {
    std::error_code ignored;
    return !entry.is_directory(ignored) || name.find(".conf") != std::string::npos;
}

}  // namespace

void checkServiceFolder(const Subject& subject, Report& report) {
    const std::string folder = subject.daemon.values.text("serviceConfigDirectory");
    std::error_code error;
    std::vector<fs::directory_entry> entries;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        entries.push_back(*entry);
    std::sort(entries.begin(), entries.end());
    for (const fs::directory_entry& entry : entries) {
        const std::string name = entry.path().filename().string();
        if (!isService(subject, name) && isMeant(entry, name))
            report.add(Code::IgnoredFile, {entry.path().string()},
                       "the daemon takes this for no service: " + reasonOf(entry, name),
                       "Rename it, or keep it elsewhere.");
    }
    if (!error && subject.allServices.empty())
        report.add(Code::NoService, {folder}, "there is no service file",
                   "The daemon does not start without a file '<service>.conf' in this folder.");
}

}  // namespace keywardctl::check
