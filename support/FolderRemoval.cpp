// Removing a tree, relative to handles all the way down.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "support/FileWriteError.h"
#include "support/Folder.h"

namespace keywarden {

namespace {

// What the daemon makes is three deep. Others may dig deeper in their own folders; that is theirs to remove.
// One descriptor a level.
constexpr unsigned kMostDepth = 200;
// Seconds of work at most, also on a slow device: a stop waits for it.
constexpr std::size_t kMostEntries = 50000;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct CloseListing {
    void operator()(DIR* listing) const { ::closedir(listing); }
};

/// One removal.
class Removal {
  public:
    explicit Removal(Folder::AtFailure atFailure, bool rootsOnly = false)
        : stops_(atFailure == Folder::AtFailure::Stop), rootsOnly_(rootsOnly) {}

    // Takes the folder's descriptor over.
    void empty(UniqueFd own, const std::string& path, unsigned depth, const std::vector<std::string>& keep) {
        const std::unique_ptr<DIR, CloseListing> listing(own ? ::fdopendir(own.get()) : nullptr);
        if (!listing) {
            note(path);
            return;
        }
        const int folder = own.release();
        errno = 0;
        while (const dirent* const entry = isOver() ? nullptr : ::readdir(listing.get())) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && std::find(keep.begin(), keep.end(), name) == keep.end())
                removeEntry(folder, name, path + "/" + name, depth);
            errno = 0;
        }
    }

    void removeEntry(int folder, const std::string& name, const std::string& path, unsigned depth) {
        if (++entries_ > kMostEntries) {
            note(path);
            stops_ = true;
            return;
        }
        if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT)
            return;
        const int error = errno;
        const auto status = statusAt(folder, name);
        if (status && status->isFolder()) {
            removeFolder(folder, name, path, depth);
            return;
        }
        errno = error;
        note(path);
    }

    void removeFolder(int folder, const std::string& name, const std::string& path, unsigned depth) {
        if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT)
            return;
        UniqueFd below(depth < kMostDepth ? ::openat(folder, name.c_str(), kFolderFlags) : -1);
        if (below && rootsOnly_ && !isRootsAlone(below.get()))
            below.reset();
        if (below)
            empty(std::move(below), path, depth + 1, {});
        if (isOver())
            return;
        if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
            note(path);
    }

    // With errno as the failure left it.
    std::optional<std::string> left() {
        errno = error_;
        return left_;
    }

  private:
    static bool isRootsAlone(int folder) {
        const auto status = statusOf(folder);
        return status && status->uid == 0 && (status->mode & 0022U) == 0;
    }

    [[nodiscard]] bool isOver() const { return stops_ && left_; }

    void note(const std::string& path) {
        if (left_)
            return;
        left_ = path;
        error_ = errno;
    }

    bool stops_;
    bool rootsOnly_;
    int error_ = 0;
    std::size_t entries_ = 0;
    std::optional<std::string> left_;
};

}  // namespace

std::optional<std::string> Folder::empty(const std::vector<std::string>& keep) const {
    Removal removal(AtFailure::GoOn);
    removal.empty(UniqueFd(::openat(get(), ".", kFolderFlags)), path_, 0, keep);
    return removal.left();
}

int removeAt(const std::string& path) {
    try {
        const auto [folder, name] = splitPath(withoutEndingSlashes(path));
        const FolderPtr parent = Folder::at(folder, Folder::Owner::Anybody);
        if (parent->remove(name))
            return 0;
        if (errno == EISDIR && ::unlinkat(parent->get(), name.c_str(), AT_REMOVEDIR) == 0)
            return 0;
        return errno;
    } catch (const FileWriteError& error) {
        return error.errorNumber();
    }
}

void Folder::emptyOfRoots() const {
    for (const std::string& name : names()) {
        const auto found = status(name);
        if (!found || !found->isFolder() || found->uid != 0)
            continue;
        Removal removal(AtFailure::GoOn, true);
        removal.removeEntry(get(), name, pathOf(name), 0);
    }
}

std::optional<std::string> Folder::removeTree(const std::string& name, AtFailure atFailure) const {
    Removal removal(atFailure);
    removal.removeEntry(get(), name, pathOf(name), 0);
    return removal.left();
}

}  // namespace keywarden
