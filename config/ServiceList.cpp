#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "config/DaemonConfiguration.h"
#include "config/ServiceConfiguration.h"
#include "support/Failure.h"
#include "support/FileStatus.h"

namespace keywarden {

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

/// Nothing at the end; a failure to read on is no end.
const dirent* nextEntry(const Folder& folder, const std::string& path) {
    errno = 0;
    const dirent* const entry = ::readdir(folder.get());
    if (entry == nullptr && errno != 0)
        throw std::runtime_error("Failed to read '" + path + "': " + std::strerror(errno));
    return entry;
}

/// Links are no services, whatever they lead to. Some file systems do not tell the type with the name.
bool isRegularFile(const dirent& entry, int folder) {
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_REG;
    const auto status = statusAt(folder, entry.d_name);
    return status && status->isRegular();
}

/// Empty for a name that is no service's: only the first dot counts, so "a.b.conf" names none.
std::string serviceId(const std::string& fileName) {
    const auto dot = fileName.find('.');
    if (dot == std::string::npos || fileName.substr(dot) != ".conf")
        return {};
    return fileName.substr(0, dot);
}

std::vector<std::string> readServiceList(const std::string& path) {
    const Folder folder(::opendir(path.c_str()));
    if (!folder)
        throw std::runtime_error("Failed to open '" + path + "': " + std::strerror(errno));
    std::vector<std::string> services;
    while (const dirent* const entry = nextEntry(folder, path)) {
        std::string id = serviceId(entry->d_name);
        if (!id.empty() && isRegularFile(*entry, ::dirfd(folder.get())))
            services.push_back(std::move(id));
    }
    return services;
}

}  // namespace

std::vector<std::string> ServiceConfiguration::getServiceList() {
    try {
        return readServiceList(DaemonConfiguration::getInstance().getServiceConfigDirectory());
    } catch (...) {
        throw std::runtime_error(
            Failure::current().message("Std exception caught while getting service list: ",
                                       "Generic exception caught while getting service list."));
    }
}

}  // namespace keywarden
