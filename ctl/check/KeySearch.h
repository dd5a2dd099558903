#pragma once

#include <string>

#include "config/ConfigKeys.h"

namespace keywardctl::check {

using keywarden::KeyRow;
using keywarden::KeyTable;

/// The row that a key of a file stands for; null for an unknown key.
[[nodiscard]] const KeyRow* findKey(const KeyTable& table, const std::string& name);

/// The known key that a misspelt one was probably meant to be; empty when none is near.
[[nodiscard]] std::string nearestKey(const KeyTable& table, const std::string& name);

/// The number at the end of "includeIPv4.12", as a text; empty for another key or a number with a leading
/// zero.
[[nodiscard]] std::string interfaceNumberOf(const std::string& name);

}  // namespace keywardctl::check
