#pragma once

#include <functional>
#include <optional>
#include <string>

namespace testsupport {

/// Runs `body` in a forked child and returns what it returned, so that what it changes of the process, its
/// identity for one, ends with it. Throws std::runtime_error when the body throws or the child dies.
std::string inChild(const std::function<std::string()>& body);

/// The same in a mount namespace of its own, which `mounts` fills with the functions below. Nothing where the
/// machine refuses private mounts; the caller says then what it did not check.
std::optional<std::string> inPrivateMounts(const std::function<void()>& mounts,
                                           const std::function<std::string()>& body);

/// Gives the calling process a mount namespace of its own. False where the machine refuses it.
bool enterPrivateMounts();

/// Only in private mounts. Each throws std::runtime_error when the machine refuses it.
void mountOver(const std::string& source, const std::string& target);
void mountEmptyFolder(const std::string& target);

/// Gives up root for the effective user and group "nobody" (65534). Only in a child.
void becomeNobody();

/// What `action` printed on standard error.
std::string standardErrorOf(const std::function<void()>& action);

}  // namespace testsupport
