#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/FileWriteError.h"
#include "support/FileWriter.h"
#include "x509/X509_T.h"

namespace cxxtools {
class SerializationInfo;
}

namespace keywarden {

/// The JSON record kept beside a stored certificate, made from the certificate.
class CertificateInfoStorage {
  public:
    explicit CertificateInfoStorage(const X509_T& certificate);
    /// Writes the record at once.
    CertificateInfoStorage(const X509_T& certificate, const std::string& path,
                           const FileAttributes& attributes = {});

    /// Compact JSON without a line end.
    [[nodiscard]] std::string toJson() const;

    /// What a record that cannot be written is reported with.
    [[nodiscard]] static std::runtime_error unwritable(const std::string& path, const FileWriteError& error);

    /// Throws std::runtime_error.
    void writeIntoFile(const std::string& path, const FileAttributes& attributes = {}) const;

    std::string issuerName;
    std::string subjectName;
    bool isCA = false;
    bool isSelfSigned = false;
    std::uint64_t validFrom = 0;   ///< seconds since the epoch
    std::uint64_t validUntil = 0;  ///< seconds since the epoch
    std::vector<std::string> validIPs;
    std::vector<std::string> validHostnames;

  private:
    void fillSubjectAltName(const X509_T& certificate);
};

void operator<<=(cxxtools::SerializationInfo& si, const CertificateInfoStorage& info);

}  // namespace keywarden
