#pragma once

#include <cstdint>
#include <string>

namespace keywarden {

/// The asctime(3) text of a moment, UTC, its line feed included ("Thu Dec 30 12:00:00 1999\n"). The count is
/// unsigned, as the callers compute it. A year that asctime cannot write gives "<count> seconds since the
/// epoch\n". Independent of the platform's time_t.
std::string utcText(std::uint64_t secondsSinceEpoch);

}  // namespace keywarden
