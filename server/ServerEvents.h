#pragma once

#include <cstddef>

namespace keywarden {

// What the server store knows under names of its own.

/// The places of the store's folders in their set: certificates, their hidden data, what is made again at
/// every start.
constexpr std::size_t kCertificateFolder = 0;
constexpr std::size_t kDurableFolders = 2;
constexpr std::size_t kTemporaryFolder = 2;

/// The journalled event of an installation: this word, the new id, the id that was in force before or kNone.
constexpr const char* kNewEvent = "new";
constexpr const char* kNone = "none";

}  // namespace keywarden
