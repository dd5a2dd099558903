#include "Tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "testsupport/Sandbox.h"

namespace faults {

Tree readTree(const std::string& root) {
    Tree tree;
    for (const auto& found : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = found.path().string();
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)))
            throw std::runtime_error("neither file nor folder: " + path);
        const bool isFolder = S_ISDIR(info.st_mode);
        tree[path.substr(root.size() + 1)] = {isFolder, info.st_mode & 07777U, info.st_uid, info.st_gid,
                                              isFolder ? std::string() : testsupport::Sandbox::read(path)};
    }
    return tree;
}

void writeTree(const std::string& root, const Tree& tree) {
    for (const auto& old : std::filesystem::directory_iterator(root))
        std::filesystem::remove_all(old.path());
    for (const auto& [name, entry] : tree) {
        const std::string path = root + "/" + name;
        if (entry.isFolder)
            std::filesystem::create_directory(path);
        else
            std::ofstream(path, std::ios::binary) << entry.content;
        if (::chown(path.c_str(), entry.uid, entry.gid) != 0 || ::chmod(path.c_str(), entry.mode) != 0)
            throw std::runtime_error("cannot make " + path);
    }
}

}  // namespace faults
