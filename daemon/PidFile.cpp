#include "daemon/PidFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "support/FileWriteError.h"
#include "support/FileWriter.h"
#include "support/OwnFolder.h"
#include "support/TemporaryFile.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

constexpr mode_t kPidFileMode = 0664;

// After root is given up the folder may be closed to the daemon while the file, made before, is its own.
bool writeInPlace(const std::string& path, const std::string& text) {
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
    return file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

void writePidFile(const std::string& path, pid_t pid, const std::string& user) {
    FileAttributes attributes;
    attributes.mode = kPidFileMode;
    attributes.user = user;
    attributes.group = user;
    const std::string text = std::to_string(pid);
    // The folder is shared: only what an earlier run that was killed left of this very file.
    removeTemporaries(folderOfPath(path), splitPath(path).second);
    try {
        FileWriter::write(path, text, attributes);
    } catch (const FileWriteError& error) {
        const bool closedFolder = error.errorNumber() == EACCES || error.errorNumber() == EPERM;
        if (!closedFolder || !writeInPlace(path, text))
            throw;
    }
}

}  // namespace keywarden
