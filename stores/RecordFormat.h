#pragma once

namespace keywarden {

/// The members of a certificate's JSON record, in writing order after the version.
namespace record {

constexpr const char* kVersion = "data_structure_version";
constexpr int kCurrentVersion = 1;

constexpr const char* kIssuerName = "issuerName";
constexpr const char* kSubjectName = "subjectName";
constexpr const char* kIsCA = "isCA";
constexpr const char* kIsSelfSigned = "isSelfSigned";
constexpr const char* kValidFrom = "validFrom";
constexpr const char* kValidUntil = "validUntil";
constexpr const char* kValidIPs = "validIPs";
constexpr const char* kValidHostnames = "validHostnames";

}  // namespace record

}  // namespace keywarden
