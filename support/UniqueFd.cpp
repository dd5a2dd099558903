#include "support/UniqueFd.h"

#include <cerrno>

namespace keywarden {

void UniqueFd::reset() {
    if (fd_ < 0)
        return;
    const int kept = errno;
    ::close(std::exchange(fd_, -1));
    errno = kept;
}

}  // namespace keywarden
