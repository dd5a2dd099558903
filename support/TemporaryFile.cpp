#include "support/TemporaryFile.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/Log.h"

namespace keywarden {

namespace {

constexpr std::string_view kEnding = ".new";
constexpr std::string_view kDigits = "0123456789";

/// Takes ".<digits>" off the end. False when there is none.
bool dropNumber(std::string_view& name) {
    const std::size_t point = name.rfind('.');
    if (point == std::string_view::npos || point + 1 == name.size() ||
        name.find_first_not_of(kDigits, point + 1) != std::string_view::npos)
        return false;
    name.remove_suffix(name.size() - point);
    return true;
}

void removeIfOurs(const Folder& folder, const std::string& name) {
    const auto status = folder.status(name);
    if (!status || !status->isRegular() || status->uid != ::geteuid())
        return;
    if (folder.remove(name))
        debugTrace("Removed '" + folder.pathOf(name) + "', left by a run that was cut short.");
    else if (errno != ENOENT)
        Log::write(SeverityError,
                   "Failed to remove file '" + folder.pathOf(name) + "' : " + std::strerror(errno));
}

}  // namespace

std::string nameOfTemporary(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    return "." + target + "." + std::to_string(::getpid()) + "." + std::to_string(counter++) + ".new";
}

std::pair<UniqueFd, std::string> makeTemporary(const Folder& folder, const std::string& target,
                                               const std::string& path) {
    for (;;) {
        std::string temporary = nameOfTemporary(target);
        UniqueFd file = folder.create(temporary);
        if (file)
            return {std::move(file), std::move(temporary)};
        if (errno != EEXIST)
            throw FileWriteError("Impossible to create", path, errno);
    }
}

std::string targetOfTemporary(std::string_view name) {
    if (name.size() <= kEnding.size() || name.front() != '.' ||
        name.substr(name.size() - kEnding.size()) != kEnding)
        return {};
    name.remove_suffix(kEnding.size());
    if (!dropNumber(name) || !dropNumber(name) || name.empty())
        return {};
    return std::string(name.substr(1));
}

void removeTemporaries(const Folder& folder, const std::string& target) {
    try {
        for (const std::string& name : folder.names()) {
            const std::string found = targetOfTemporary(name);
            if (!found.empty() && (target.empty() || found == target))
                removeIfOurs(folder, name);
        }
    } catch (const FileWriteError& error) {
        // A folder that may be written but not listed, or a disk that fails: the next start finds them.
        debugTrace(error.what());
    }
}

}  // namespace keywarden
