#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "stores/CertificateIdList.h"

namespace keywarden {

/// Certificate id to common name, ascending by id.
class CertificateIdCnMap {
  public:
    CertificateIdCnMap() = default;
    /// Throws std::runtime_error when the file cannot be opened.
    explicit CertificateIdCnMap(const std::string& path);

    [[nodiscard]] bool certificateIdExist(const std::string& id) const;
    [[nodiscard]] std::size_t size() const { return names_.size(); }
    /// Takes the place of an earlier name.
    void set(const std::string& id, const std::string& commonName);
    void remove(const std::string& id);
    [[nodiscard]] CertificateIdList toCertificateIdList() const;
    [[nodiscard]] const std::map<std::string, std::string>& entries() const { return names_; }

    /// One line an entry: id, one blank, common name. A line feed inside a common name is written as a blank:
    /// a certificate cannot bring entries of its own.
    [[nodiscard]] std::string toLines() const;
    /// toLines() as a file. Without `truncate` the lines are appended.
    /// Throws std::runtime_error when the file cannot be opened.
    void writeIntoFile(const std::string& path, bool truncate) const;
    void writeIntoFile(const std::string& path, bool truncate, const std::string& group) const;
    /// Takes the place of what the map holds. Of several lines for one id the first counts.
    void readFromFile(const std::string& path);

  private:
    std::map<std::string, std::string> names_;
};

}  // namespace keywarden
