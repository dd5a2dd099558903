#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace faults {

/// One file or folder as it stands on a disk.
struct Entry {
    bool isFolder = false;
    mode_t mode = 0644;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string content;
};

/// Everything below a folder, by its path from there; a folder comes before what is in it.
using Tree = std::map<std::string, Entry>;

[[nodiscard]] Tree readTree(const std::string& root);
/// Makes the folder hold the tree and nothing else.
void writeTree(const std::string& root, const Tree& tree);

}  // namespace faults
