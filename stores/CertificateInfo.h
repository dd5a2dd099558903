#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace cxxtools {
class SerializationInfo;
}

namespace keywarden {

class CertificateInfoStorage;

/// The JSON record kept beside a stored certificate, read back.
class CertificateInfo {
  public:
    /// Throws what read() throws.
    explicit CertificateInfo(const std::string& path);
    /// The same record without its file.
    explicit CertificateInfo(const CertificateInfoStorage& made);

    /// Throws std::runtime_error when the file is missing, unreadable or not such a record; the fields then
    /// keep their values.
    void read(const std::string& path);

    /// The record as pairs of texts, under the record's own keys; a list is joined by blanks.
    [[nodiscard]] std::map<std::string, std::string> getMap() const;

    [[nodiscard]] static std::string boolToString(bool value);

    std::string issuerName;
    std::string subjectName;
    bool isCA = false;
    bool isSelfSigned = false;
    std::uint64_t validFrom = 0;   ///< seconds since the epoch
    std::uint64_t validUntil = 0;  ///< seconds since the epoch
    std::vector<std::string> validIPs;
    std::vector<std::string> validHostnames;
};

/// Throws what cxxtools throws for a missing or misfit member, and std::runtime_error for a version below 1.
void operator>>=(const cxxtools::SerializationInfo& si, CertificateInfo& info);

/// One line a field, as requesters receive it. A line feed inside a name is written as a blank, so that a
/// certificate cannot bring lines of its own.
std::ostream& operator<<(std::ostream& out, const CertificateInfo& info);

}  // namespace keywarden
