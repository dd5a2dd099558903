#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "support/Debug.h"
#include "support/Failure.h"
#include "support/OwnFolder.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr int kOpenFolders = 64;
constexpr const char* kBeginCertificate = "-----BEGIN CERTIFICATE-----";
constexpr const char* kEndCertificate = "-----END CERTIFICATE-----";

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

// What is then written into the new folder must not go with it in a power cut.
void syncParentOf(const std::string& path) {
    const std::string folder = path.substr(0, path.find_last_not_of('/') + 1);
    const UniqueFd parent(::open(folderOfPath(folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent)
        ::fsync(parent.get());
}

bool skipToCertificate(std::istream& file) {
    for (std::string line; std::getline(file, line);)
        if (line == kBeginCertificate)
            return true;
    return false;
}

}  // namespace

bool Tools::fileExist(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

void Tools::createDirectory(const std::string& path, unsigned mode) {
    const std::unique_ptr<DIR, CloseFolder> existing(::opendir(path.c_str()));
    if (!existing) {
        if (::mkdir(path.c_str(), static_cast<mode_t>(mode)) != 0)
            debugTrace("Impossible to create " + path);
        else
            syncParentOf(path);
        return;
    }
    try {
        changeMode(path, mode);
    } catch (...) {
        // "Faied" is what readers of the log look for.
        throw std::runtime_error(
            Failure::current().runtimeMessage("Caught runtime exception. Faied to change the mode. Reason: ",
                                              "Caught standard exception. Faied to change the mode. Reason: ",
                                              "Caught unknown exception while changing the mode"));
    }
}

int Tools::removeFile(const std::string& path) {
    if (!fileExist(path)) {
        debugTrace("The file '" + path + "' not found for removal.");
        return -1;
    }
    const int result = std::remove(path.c_str());
    const int error = errno;
    if (result != 0 && error != ENOENT)
        debugTrace("Failed to remove file '" + path + "' : error: " + std::strerror(error));
    return result;
}

int Tools::removeFiles(const std::string& path) {
    return ::nftw(path.c_str(), removeOnFile, kOpenFolders, FTW_DEPTH | FTW_PHYS);
}

int Tools::removeOnFile(const char* path, const struct stat* /*info*/, int /*type*/, FTW* /*walk*/) {
    const int result = std::remove(path);
    if (result != 0)
        std::perror(path);
    return result;
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
