#include "PowerModel.h"

#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <set>
#include <stdexcept>

#include "testsupport/Sandbox.h"

namespace faults {

namespace {

struct stat look(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        throw std::runtime_error("cannot look at " + path);
    return info;
}

Entry entryOf(const struct stat& info) {
    return {S_ISDIR(info.st_mode), info.st_mode & 07777U, info.st_uid, info.st_gid, {}};
}

std::string pathOf(int file) {
    return "/proc/self/fd/" + std::to_string(file);
}

}  // namespace

PowerModel::PowerModel(std::string root) : root_(std::move(root)) {
    std::set<std::string> folders{root_};
    for (const auto& found : std::filesystem::recursive_directory_iterator(root_)) {
        const struct stat info = look(found.path().string());
        const auto node = std::make_shared<Entry>(entryOf(info));
        if (node->isFolder)
            folders.insert(found.path().string());
        else
            node->content = testsupport::Sandbox::read(found.path().string());
        nodes_[info.st_ino] = node;
    }
    for (const std::string& folder : folders)
        durable_[folder] = listingOf(folder);
}

void PowerModel::created(int file) {
    const struct stat info = look(pathOf(file));
    // A number that another file had before stands for that one no more.
    nodes_[info.st_ino] = std::make_shared<Entry>(entryOf(info));
}

void PowerModel::synced(int file) {
    const struct stat info = look(pathOf(file));
    if (S_ISDIR(info.st_mode)) {
        const std::string folder = std::filesystem::read_symlink(pathOf(file)).string();
        durable_[folder] = listingOf(folder);
        return;
    }
    const auto node = nodes_.find(info.st_ino);
    if (node == nodes_.end())
        return;
    *node->second = entryOf(info);
    node->second->content = testsupport::Sandbox::read(pathOf(file));
}

PowerModel::Listing PowerModel::listingOf(const std::string& folder) const {
    Listing listing;
    for (const auto& found : std::filesystem::directory_iterator(folder)) {
        const struct stat info = look(found.path().string());
        const auto known = nodes_.find(info.st_ino);
        listing[found.path().filename().string()] =
            known != nodes_.end() && known->second->isFolder == S_ISDIR(info.st_mode)
                ? known->second
                : std::make_shared<Entry>(entryOf(info));
    }
    return listing;
}

Tree PowerModel::afterCut(unsigned luckyFolders) const {
    Tree tree;
    add(tree, root_, luckyFolders);
    return tree;
}

void PowerModel::add(Tree& tree, const std::string& folder, unsigned luckyFolders) const {
    const auto durable = durable_.find(folder);
    std::size_t place = 0;
    for (const auto& found : std::filesystem::recursive_directory_iterator(root_))
        place += found.is_directory() && found.path().string() < folder ? 1U : 0U;
    const bool isLucky = ((luckyFolders >> (place % 8U)) & 1U) != 0;
    Listing listing;
    if (isLucky && std::filesystem::exists(folder))
        listing = listingOf(folder);
    else if (durable != durable_.end())
        listing = durable->second;
    for (const auto& [name, node] : listing) {
        const std::string path = folder + "/" + name;
        tree[path.substr(root_.size() + 1)] = *node;
        if (node->isFolder)
            add(tree, path, luckyFolders);
    }
}

}  // namespace faults
