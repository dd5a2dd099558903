#pragma once

#include <string>
#include <vector>

namespace keywardctl::check {

enum class KeyKind { Text, Switch, Path };

struct Key {
    std::string name;
    KeyKind kind = KeyKind::Text;
    bool numbered = false;  ///< the name is followed by a point and a number of an interface
};

using KeyTable = std::vector<Key>;

[[nodiscard]] const KeyTable& daemonKeys();
[[nodiscard]] const KeyTable& serviceKeys();
[[nodiscard]] const KeyTable& settingsKeys();

/// The keys that every daemon file must have, in the order in which the daemon asks for them.
[[nodiscard]] const std::vector<std::string>& requiredDaemonKeys();

/// The entry that a key of a file stands for; null for an unknown key.
[[nodiscard]] const Key* findKey(const KeyTable& table, const std::string& name);

/// The known key that a misspelt one was probably meant to be; empty when none is near.
[[nodiscard]] std::string nearestKey(const KeyTable& table, const std::string& name);

/// The number at the end of "includeIPv4.12", as a text; empty for another key or a number with a leading
/// zero.
[[nodiscard]] std::string interfaceNumberOf(const std::string& name);

}  // namespace keywardctl::check
