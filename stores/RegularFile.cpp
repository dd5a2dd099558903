#include "stores/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/UniqueFd.h"

namespace keywarden {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error("Impossible to read the file '" + path + "': " + reason);
}

void refuseUnlessRegular(const struct stat& info, const std::string& path) {
    if (!S_ISREG(info.st_mode))
        fail(path, "It is not a regular file");
}

UniqueFd openRegular(const std::string& path) {
    // Looked at before it is opened, since opening a fifo or a device has effects of its own, and again
    // afterwards, since the name may mean something else by then.
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        fail(path, std::strerror(errno));
    refuseUnlessRegular(info, path);
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file || ::fstat(file.get(), &info) != 0)
        fail(path, std::strerror(errno));
    refuseUnlessRegular(info, path);
    return file;
}

}  // namespace

std::string readRegularFile(const std::string& path, std::size_t limit) {
    constexpr std::size_t kChunk = 16384;
    const UniqueFd file = openRegular(path);
    std::string content;
    for (;;) {
        const std::size_t size = content.size();
        content.resize(size + kChunk);
        ssize_t count = 0;
        do {
            count = ::read(file.get(), &content[size], kChunk);
        } while (count < 0 && errno == EINTR);
        if (count < 0)
            fail(path, std::strerror(errno));
        content.resize(size + static_cast<std::size_t>(count));
        if (content.size() > limit)
            fail(path, "It is larger than " + std::to_string(limit) + " bytes");
        if (count == 0)
            return content;
    }
}

}  // namespace keywarden
