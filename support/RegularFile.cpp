#include "support/RegularFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "support/FileStatus.h"
#include "support/FileWriteError.h"
#include "support/UniqueFd.h"

namespace keywarden {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error("Impossible to read the file '" + path + "': " + reason);
}

void refuseUnlessRegular(const std::optional<FileStatus>& status, const std::string& path) {
    if (!status)
        fail(path, std::strerror(errno));
    if (!status->isRegular())
        fail(path, "It is not a regular file");
}

UniqueFd openRegular(const std::string& path) {
    // Looked at before it is opened, since opening a fifo or a device has effects of its own, and again
    // afterwards, since the name may mean something else by then.
    refuseUnlessRegular(statusOfPath(path), path);
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file)
        fail(path, std::strerror(errno));
    refuseUnlessRegular(statusOf(file.get()), path);
    return file;
}

/// One byte more than the limit, so that a file that is too large is seen to be.
std::size_t roomFor(int file, std::size_t limit) {
    const auto status = statusOf(file);
    return status ? static_cast<std::size_t>(std::min<std::uint64_t>(status->size, limit)) + 1 : limit + 1;
}

}  // namespace

// At its full size from the start: a text that grows would leave copies of a key behind.
std::string contentOf(int file, const std::string& path, std::size_t limit) {
    std::string content(roomFor(file, limit), '\0');
    std::size_t size = 0;
    while (size < content.size()) {
        const ssize_t count = ::read(file, &content[size], content.size() - size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw FileWriteError("Impossible to read the file", path, errno);
        if (count == 0)
            break;
        size += static_cast<std::size_t>(count);
        if (size > limit)
            break;
        // It has grown meanwhile.
        if (size == content.size())
            content.resize(std::min(limit, 2 * size) + 1);
    }
    if (size > limit)
        fail(path, "It is larger than " + std::to_string(limit) + " bytes");
    content.resize(size);
    return content;
}

std::string readRegularFile(const std::string& path, std::size_t limit) {
    const UniqueFd file = openRegular(path);
    return contentOf(file.get(), path, limit);
}

}  // namespace keywarden
