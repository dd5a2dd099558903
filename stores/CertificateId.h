#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace keywarden {

/// How many certificates with one subject-name hash a store can hold.
constexpr unsigned kIdsPerHash = 10;

/// What is read of a certificate file at most, in bytes. A description takes up to forty times as much, and
/// more memory while it is made: who may hand in certificates must not have all that a small device has.
constexpr std::size_t kLargestCertificateFile = std::size_t{128} * 1024;

/// The id of a subject-name hash and a suffix below kIdsPerHash: "0a1b2c3d.0".
[[nodiscard]] std::string certificateId(const std::string& hash, unsigned suffix);

/// Whether the text has the form of an id.
[[nodiscard]] bool isCertificateId(std::string_view text);

/// The hash of an id.
[[nodiscard]] std::string hashOfId(const std::string& id);

}  // namespace keywarden
