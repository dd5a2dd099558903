#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "support/Folder.h"
#include "support/UniqueFd.h"

namespace keywarden {

/// The files that stand beside their targets until they are whole: ".<target>.<process>.<count>.new". The
/// point keeps them out of every list of certificates and out of OpenSSL's look-up by hash.

/// A new empty one at mode 0600 and its name. `path`, the target's, is for the message. Throws
/// FileWriteError.
[[nodiscard]] std::pair<UniqueFd, std::string> makeTemporary(const Folder& folder, const std::string& target,
                                                             const std::string& path);
/// A name for one.
[[nodiscard]] std::string nameOfTemporary(const std::string& target);

/// The target of a temporary's name; empty for any other name.
[[nodiscard]] std::string targetOfTemporary(std::string_view name);

/// Removes the temporaries that a run which was cut short left in a folder: regular files of the daemon's
/// user only. `target` restricts it to those of one file, for a folder that is shared. Nobody else may be
/// writing there. Throws nothing: what cannot be removed is logged.
void removeTemporaries(const Folder& folder, const std::string& target = std::string());

}  // namespace keywarden
