#include "server/StoreFiles.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include "stores/RegularFile.h"
#include "support/FileWriteError.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr std::size_t kLargestCertificateFile = 1048576;

}  // namespace

X509_T readCertificateFile(const std::string& path) {
    const std::string content =
        Tools::fileExist(path) ? readRegularFile(path, kLargestCertificateFile) : std::string();
    try {
        return X509_T::fromPem(content);
    } catch (const std::exception&) {
        // The text of the handle that reads a file by itself.
        throw std::runtime_error("Failed to read certificate from file: " + path);
    }
}

void refuseSpecialFile(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        throw std::runtime_error("The file '" + path + "' is not a regular file.");
}

void stageFile(FileTransaction& change, const std::string& path, std::string_view content,
               const FileAttributes& attributes) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        throw FileWriteError("Impossible to write '" + path + "': a folder stands in its place", EISDIR);
    change.stage(path, content, attributes);
}

}  // namespace keywarden
