#include "ctl/PassedCertificate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "ctl/Problem.h"
#include "stores/CertificateId.h"
#include "support/FileStatus.h"
#include "support/RegularFile.h"
#include "support/Tools.h"
#include "support/UniqueFd.h"

namespace keywardctl {

namespace {

constexpr const char* kPrefix = "keywardctl-";
constexpr unsigned kRandomLength = 16;

// Under the service's lock no other copy is in use: these are of senders that were killed.
void removeLeftOvers(const std::string& folder) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
        if (entry.path().filename().string().rfind(kPrefix, 0) != 0)
            continue;
        const auto status = keywarden::statusOfPath(entry.path());
        if (status && status->isRegular())
            ::unlink(entry.path().c_str());
    }
}

std::string contentOf(const std::string& source) {
    std::string content;
    try {
        content = keywarden::readRegularFile(source, keywarden::kLargestCertificateFile);
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, "'" + source + "' cannot be read: " + error.what());
    }
    if (content.find("PRIVATE KEY-----") != std::string::npos)
        throw Problem(ExitCode::Failed, "'" + source +
                                            "' holds a private key, which does not belong here: "
                                            "make a file of the certificate alone");
    return content;
}

void writeAll(int file, const std::string& path, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t count = ::write(file, content.data() + done, content.size() - done);
        if (count < 0 && errno != EINTR)
            throw Problem(ExitCode::Failed, fileProblem("cannot write", path, errno));
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

}  // namespace

// A name for every copy: the daemon may yet come to a request whose sender gave up, and must not find the
// file of another one then.
PassedCertificate::PassedCertificate(const Requester& requester, const std::string& source)
    : path_(requester.folder() + "/" + kPrefix + keywarden::Tools::getRandomName(kRandomLength)) {
    const std::string content = contentOf(source);
    removeLeftOvers(requester.folder());
    const keywarden::UniqueFd file(
        ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file)
        throw Problem(ExitCode::Failed, fileProblem("cannot make", path_, errno));
    try {
        if (::fchmod(file.get(), 0644) != 0)
            throw Problem(ExitCode::Failed, fileProblem("cannot set the rights of", path_, errno));
        writeAll(file.get(), path_, content);
    } catch (...) {
        ::unlink(path_.c_str());
        throw;
    }
}

PassedCertificate::~PassedCertificate() {
    ::unlink(path_.c_str());
}

}  // namespace keywardctl
