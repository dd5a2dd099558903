// How a configured path is walked to its folder: by nobody's links but root's and our own.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <stdexcept>
#include <utility>

#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/Folder.h"

namespace keywarden {

namespace {

// As the kernel itself allows.
constexpr unsigned kMostLinks = 40;

using Components = std::deque<std::string>;

void prepend(Components& components, const std::string& path) {
    Components more;
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin && path.compare(begin, end - begin, ".") != 0)
            more.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    components.insert(components.begin(), more.begin(), more.end());
}

bool isTrusted(const FileStatus& link) {
    return link.uid == 0 || link.uid == ::geteuid();
}

// Of the link that was looked at, not of what has its name by now. Empty, with errno, when it cannot be read.
std::string targetOf(int link) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlinkat(link, "", target.data(), target.size());
    return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : std::string();
}

UniqueFd beginningOf(const std::string& path) {
    const bool isAbsolute = !path.empty() && path.front() == '/';
    return UniqueFd(::open(isAbsolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/// A path on the way to its folder.
class Walk {
  public:
    explicit Walk(const std::string& path) : path_(path), here_(beginningOf(path)) { prepend(ahead_, path); }

    /// Goes on until `left` components are ahead. False, with errno, when it cannot. A link among what is
    /// left is not followed. Throws FileWriteError at a link that must not be followed.
    bool until(std::size_t left) {
        while (here_ && ahead_.size() > left) {
            const std::string name = ahead_.front();
            ahead_.pop_front();
            if (!step(name))
                return false;
        }
        return static_cast<bool>(here_);
    }

    [[nodiscard]] int here() const { return here_.get(); }
    [[nodiscard]] std::string last() const { return ahead_.empty() ? "." : ahead_.front(); }

  private:
    bool step(const std::string& name) {
        UniqueFd next(::openat(here_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        const auto status = next ? statusOf(next.get()) : std::nullopt;
        if (!status)
            return false;
        if (!status->isLink()) {
            here_ = std::move(next);
            return true;
        }
        if (!isTrusted(*status))
            throw FileWriteError(
                "Refusing the link '" + name + "', which belongs to somebody else, on the way to", path_,
                EPERM);
        if (++links_ > kMostLinks) {
            errno = ELOOP;
            return false;
        }
        const std::string target = targetOf(next.get());
        if (target.empty())
            return false;
        if (target.front() == '/')
            here_ = beginningOf(target);
        prepend(ahead_, target);
        return static_cast<bool>(here_);
    }

    std::string path_;
    UniqueFd here_;
    Components ahead_;
    unsigned links_ = 0;
};

UniqueFd openLast(int folder, const std::string& name, Folder::Owner owner) {
    constexpr int kFlags = O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
    UniqueFd opened(::openat(folder, name.c_str(), O_RDONLY | kFlags));
    // A folder that may be written but not listed can be used, only not synced.
    if (!opened && errno == EACCES && owner == Folder::Owner::Anybody)
        opened = UniqueFd(::openat(folder, name.c_str(), O_PATH | kFlags));
    return opened;
}

bool makeMissing(const std::string& path, mode_t mode) {
    Walk walk(path);
    if (!walk.until(1) || ::mkdirat(walk.here(), walk.last().c_str(), mode) != 0)
        return false;
    // What is then written into the new folder must not go with it in a power cut.
    const UniqueFd parent(::openat(walk.here(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (parent)
        ::fsync(parent.get());
    return true;
}

template <typename Change>
void orFaied(Change change) {
    try {
        change();
    } catch (...) {
        // "Faied" is what readers of the log look for.
        throw std::runtime_error(
            Failure::current().runtimeMessage("Caught runtime exception. Faied to change the mode. Reason: ",
                                              "Caught standard exception. Faied to change the mode. Reason: ",
                                              "Caught unknown exception while changing the mode"));
    }
}

UniqueFd walkTo(const std::string& path, Folder::Owner owner) {
    Walk walk(path);
    // The last component of one that must be ours is never a link; it is then not walked over.
    if (!walk.until(owner == Folder::Owner::Ours ? 1 : 0))
        return {};
    return openLast(walk.here(), walk.last(), owner);
}

}  // namespace

FolderPtr Folder::at(const std::string& path, Owner owner, const std::string& wanted) {
    const std::string& named = wanted.empty() ? path : wanted;
    UniqueFd opened = walkTo(path, owner);
    if (!opened)
        throw FileWriteError("Impossible to open the folder of", named, errno);
    const auto status = statusOf(opened.get());
    if (owner == Owner::Ours && (!status || status->uid != ::geteuid()))
        throw FileWriteError("The folder does not belong to the daemon user, refusing to write", named,
                             EPERM);
    return std::make_shared<const Folder>(std::move(opened), path);
}

FolderPtr createFolder(const std::string& path, mode_t mode) {
    const std::string plain = withoutEndingSlashes(path);
    try {
        const bool isNew = makeMissing(plain, mode);
        FolderPtr folder = Folder::at(plain, Folder::Owner::Anybody);
        if (!isNew)
            orFaied([&] { folder->setMode(mode); });
        return folder;
    } catch (const FileWriteError&) {
        debugTrace("Impossible to create " + path);
        return nullptr;
    }
}

bool Folder::isStillThere() const {
    try {
        const UniqueFd there = walkTo(path_, Owner::Ours);
        const auto found = there ? statusOf(there.get()) : std::nullopt;
        const auto own = statusOf(get());
        return found && own && found->isSameFile(*own);
    } catch (const FileWriteError&) {
        return false;
    }
}

std::string withoutEndingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::pair<std::string, std::string> splitPath(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return {".", path};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

std::string folderOfPath(const std::string& path) {
    return withoutEndingSlashes(splitPath(path).first);
}

}  // namespace keywarden
