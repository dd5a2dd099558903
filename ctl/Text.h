#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace keywardctl {

/// The text with every control character turned into "?" and every byte that is not UTF-8 as well: what a
/// certificate says must neither steer a terminal nor break a line.
[[nodiscard]] std::string printable(const std::string& text);
/// Only what is not UTF-8 is replaced.
[[nodiscard]] std::string validUtf8(const std::string& text);

/// "2026-01-31 23:59:59 UTC". Seconds since the epoch.
[[nodiscard]] std::string utcText(std::int64_t seconds);

/// Whole days until a moment, rounded down: 0 on the last day, negative once it is over.
[[nodiscard]] std::int64_t daysUntil(std::int64_t moment, std::int64_t now);

[[nodiscard]] std::string joined(const std::vector<std::string>& parts, const std::string& separator);

}  // namespace keywardctl
