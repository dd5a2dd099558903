#include "stores/CertificateIdCnMap.h"

#include <sstream>

#include "stores/IndexFile.h"

namespace keywarden {

CertificateIdCnMap::CertificateIdCnMap(const std::string& path) {
    readFromFile(path);
}

bool CertificateIdCnMap::certificateIdExist(const std::string& id) const {
    return names_.count(id) != 0;
}

void CertificateIdCnMap::set(const std::string& id, const std::string& commonName) {
    names_[id] = commonName;
}

void CertificateIdCnMap::remove(const std::string& id) {
    names_.erase(id);
}

CertificateIdList CertificateIdCnMap::toCertificateIdList() const {
    CertificateIdList ids;
    for (const auto& entry : names_)
        ids.add(entry.first);
    return ids;
}

std::string CertificateIdCnMap::toLines() const {
    std::string lines;
    for (const auto& [id, commonName] : names_)
        lines += id + " " + onOneLine(commonName) + "\n";
    return lines;
}

void CertificateIdCnMap::writeIntoFile(const std::string& path, bool truncate) const {
    writeIndexFile(path, toLines(), truncate, FileAttributes());
}

void CertificateIdCnMap::writeIntoFile(const std::string& path, bool truncate,
                                       const std::string& group) const {
    writeIndexFile(path, toLines(), truncate, {0644, group, std::string(), true});
}

void CertificateIdCnMap::readFromFile(const std::string& path) {
    std::istringstream content(readIndexFile(path));
    names_.clear();
    for (std::string line; std::getline(content, line);) {
        const std::size_t blank = line.find(' ');
        if (blank != std::string::npos)
            names_.emplace(line.substr(0, blank), line.substr(blank + 1));
    }
}

}  // namespace keywarden
