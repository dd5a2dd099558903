#include "daemon/PidFile.h"

#include <cerrno>

#include "support/FileWriteError.h"
#include "support/FileWriter.h"
#include "support/Folder.h"
#include "support/TemporaryFile.h"

namespace keywarden {

namespace {

constexpr mode_t kPidFileMode = 0664;

bool writeInPlace(const std::string& path, const std::string& text) {
    try {
        return Folder::at(folderOfPath(path), Folder::Owner::Anybody)->rewrite(splitPath(path).second, text);
    } catch (const FileWriteError&) {
        return false;
    }
}

}  // namespace

void writePidFile(const std::string& path, pid_t pid, const std::string& user) {
    FileAttributes attributes;
    attributes.mode = kPidFileMode;
    attributes.user = user;
    attributes.group = user;
    const std::string text = std::to_string(pid);
    try {
        const FolderPtr folder = Folder::at(folderOfPath(path), Folder::Owner::Anybody, path);
        const std::string name = splitPath(path).second;
        // The folder is shared: only what an earlier run that was killed left of this very file.
        removeTemporaries(*folder, name);
        FileWriter::write(path, text, attributes);
    } catch (const FileWriteError& error) {
        const bool closedFolder = error.errorNumber() == EACCES || error.errorNumber() == EPERM;
        // After root is given up the folder may be closed to the daemon while the file, made before, is its
        // own.
        if (!closedFolder || !writeInPlace(path, text))
            throw;
    }
}

}  // namespace keywarden
