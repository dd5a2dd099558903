#include "stores/CertificateIdList.h"

#include <sstream>

#include "stores/IndexFile.h"

namespace keywarden {

CertificateIdList::CertificateIdList(const std::vector<std::string>& ids) : ids_(ids.begin(), ids.end()) {}

CertificateIdList::CertificateIdList(const std::string& path) {
    readFromFile(path);
}

bool CertificateIdList::exist(const std::string& id) const {
    return ids_.count(id) != 0;
}

void CertificateIdList::add(const std::string& id) {
    ids_.insert(id);
}

std::vector<std::string> CertificateIdList::toArray() const {
    return {ids_.begin(), ids_.end()};
}

std::string CertificateIdList::toTextList() const {
    std::string text;
    for (const std::string& id : ids_)
        text += (text.empty() ? "" : " ") + id;
    return text;
}

std::string CertificateIdList::toLines() const {
    std::string lines;
    for (const std::string& id : ids_)
        lines += id + "\n";
    return lines;
}

void CertificateIdList::writeIntoFile(const std::string& path, bool truncate) const {
    writeIndexFile(path, toLines(), truncate, FileAttributes());
}

void CertificateIdList::writeIntoFile(const std::string& path, bool truncate,
                                      const std::string& group) const {
    writeIndexFile(path, toLines(), truncate, {0644, group, std::string(), true});
}

void CertificateIdList::readFromFile(const std::string& path) {
    std::istringstream content(readIndexFile(path));
    ids_.clear();
    for (std::string line; std::getline(content, line);)
        if (!line.empty())
            ids_.insert(line);
}

}  // namespace keywarden
