#pragma once

#include <string>
#include <utility>

#include "support/UniqueFd.h"

namespace keywarden {

/// A path's folder, the ending slash included ("." when the path names none), and the name in it.
[[nodiscard]] std::pair<std::string, std::string> splitPath(const std::string& path);

/// The folder that a file's path begins with, in the one form in which folders are compared and opened: a
/// link in the place of a store's folder is refused only when the path does not end in a slash.
[[nodiscard]] std::string folderOfPath(const std::string& path);

/// A descriptor of the folder that `path` is to be written into. With `mustBeOurs` the folder must belong to
/// the daemon's user and be no link. Throws FileWriteError.
[[nodiscard]] UniqueFd openFolder(const std::string& folder, const std::string& path, bool mustBeOurs);

/// Makes the entries of a folder survive a power cut. A file system without folder syncs (EINVAL) and a
/// folder opened by its path only (EBADF) give what they can; any other failure throws FileWriteError.
void syncFolder(int folder, const std::string& path);
/// The same for a folder that belongs to the daemon's user and is no link.
void syncFolder(const std::string& path);

}  // namespace keywarden
