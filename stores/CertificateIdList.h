#pragma once

#include <set>
#include <string>
#include <vector>

namespace keywarden {

/// Certificate ids in ascending byte order, no duplicates.
class CertificateIdList {
  public:
    CertificateIdList() = default;
    explicit CertificateIdList(const std::vector<std::string>& ids);
    /// Throws std::runtime_error when the file cannot be opened.
    explicit CertificateIdList(const std::string& path);

    [[nodiscard]] bool exist(const std::string& id) const;
    void add(const std::string& id);
    [[nodiscard]] bool empty() const { return ids_.empty(); }
    [[nodiscard]] std::vector<std::string> toArray() const;
    /// Separated by single blanks.
    [[nodiscard]] std::string toTextList() const;

    /// One id a line.
    [[nodiscard]] std::string toLines() const;
    /// toLines() as a file. Without `truncate` the lines are appended to what the file holds.
    /// Throws std::runtime_error when the file cannot be opened.
    void writeIntoFile(const std::string& path, bool truncate) const;
    void writeIntoFile(const std::string& path, bool truncate, const std::string& group) const;
    /// Takes the place of what the list holds. An empty line names nothing.
    void readFromFile(const std::string& path);

  private:
    std::set<std::string> ids_;
};

}  // namespace keywarden
