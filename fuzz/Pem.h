#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

/// The input as PEM text: as it is when it holds a PEM header, else taken for DER and wrapped, so that both
/// the reader of the armour and the parser behind it are reached.
std::string asPem(const std::uint8_t* data, std::size_t size, const std::string& label);

}  // namespace fuzz
