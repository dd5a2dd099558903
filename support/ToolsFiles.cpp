
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "support/Debug.h"
#include "support/FileStatus.h"
#include "support/FileWriteError.h"
#include "support/Folder.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr const char* kBeginCertificate = "-----BEGIN CERTIFICATE-----";
constexpr const char* kEndCertificate = "-----END CERTIFICATE-----";

bool skipToCertificate(std::istream& file) {
    for (std::string line; std::getline(file, line);)
        if (line == kBeginCertificate)
            return true;
    return false;
}

}  // namespace

bool Tools::fileExist(const std::string& path) {
    return statusOfPath(path).has_value();
}

void Tools::createDirectory(const std::string& path, unsigned mode) {
    static_cast<void>(createFolder(path, static_cast<mode_t>(mode)));
}

int Tools::removeFile(const std::string& path) {
    if (!fileExist(path)) {
        debugTrace("The file '" + path + "' not found for removal.");
        return -1;
    }
    const int error = removeAt(path);
    if (error != 0 && error != ENOENT)
        debugTrace("Failed to remove file '" + path + "' : error: " + std::strerror(error));
    return error == 0 ? 0 : -1;
}

int Tools::removeFiles(const std::string& path) {
    try {
        const std::string plain = withoutEndingSlashes(path);
        const FolderPtr folder = Folder::at(folderOfPath(plain), Folder::Owner::Anybody);
        const std::string name = splitPath(plain).second;
        if (!folder->has(name))
            return -1;
        const auto left = folder->removeTree(name, Folder::AtFailure::Stop);
        if (!left)
            return 0;
        std::perror(left->c_str());
    } catch (const FileWriteError& error) {
        errno = error.errorNumber();
    }
    return -1;
}

int Tools::removeOnFile(const char* path, const struct stat* /*info*/, int /*type*/, FTW* /*walk*/) {
    const int error = removeAt(path);
    errno = error;
    if (error != 0)
        std::perror(path);
    return error == 0 ? 0 : -1;
}

bool Tools::isTheSameCertificate(const std::string& fileA, const std::string& fileB) {
    std::ifstream a(fileA);
    std::ifstream b(fileB);
    if (!skipToCertificate(a) || !skipToCertificate(b))
        return false;
    for (std::string lineA, lineB;;) {
        std::getline(a, lineA);
        std::getline(b, lineB);
        // A file that ends here, even within its last line, has shown no difference.
        if (!a.good() || !b.good())
            return true;
        if (lineA != lineB)
            return false;
        if (lineA == kEndCertificate)
            return true;
    }
}

}  // namespace keywarden
