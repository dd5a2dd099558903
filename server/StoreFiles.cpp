#include "server/StoreFiles.h"

#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include "stores/CertificateId.h"
#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/RegularFile.h"
#include "support/Tools.h"
#include "x509/Secret.h"

namespace keywarden {

namespace {

constexpr std::size_t kLargestRequestFile = 1048576;
// A key file is far smaller; more than this is no key.
constexpr std::size_t kLargestKeyFile = 65536;
constexpr std::size_t kLargestNetworkFile = 1048576;

/// The reader's result; what is wrong with the file is told with `text`. What is not the file's fault (a disk
/// that fails, no memory) passes through: it must not be taken for a file that is none.
template <typename Reader>
auto parsed(Reader read, const std::string& text) {
    try {
        return read();
    } catch (const FileWriteError& error) {
        // EINVAL: not even a name of a file.
        if (error.errorNumber() != ENOENT && error.errorNumber() != EINVAL)
            throw;
        throw std::runtime_error(text);
    } catch (const std::runtime_error&) {
        throw std::runtime_error(text);
    }
}

}  // namespace

X509_T readCertificateFile(const std::string& path) {
    const std::string content =
        Tools::fileExist(path) ? readRegularFile(path, kLargestCertificateFile) : std::string();
    try {
        return X509_T::fromPem(content);
    } catch (const std::exception&) {
        // The text of the handle that reads a file by itself.
        throw std::runtime_error("Failed to read certificate from file: " + path);
    }
}

X509_T readCertificate(const FolderSet& folders, const std::string& path) {
    return parsed([&] { return X509_T::fromPem(folders.read(path, kLargestCertificateFile)); },
                  "Failed to read certificate from file: " + path);
}

EVP_PKEY_T readKey(const FolderSet& folders, const std::string& path) {
    return parsed(
        [&] {
            const Secret pem(folders.read(path, kLargestKeyFile));
            return EVP_PKEY_T::fromPem(pem.text());
        },
        "Extract of private key from file failed.");
}

X509_REQ_T readRequest(const FolderSet& folders, const std::string& path) {
    const std::string pem = parsed([&] { return folders.read(path, kLargestRequestFile); },
                                   "Failed allocate memory for BIO buffer during loading csr file: " + path);
    return parsed([&] { return X509_REQ_T::fromPem(pem); },
                  "Failed to read csr from BIO buffer for file " + path);
}

NetworkInfo readNetwork(const FolderSet& folders, const std::string& path) {
    try {
        return NetworkInfo::fromText(folders.read(path, kLargestNetworkFile));
    } catch (const FileWriteError& error) {
        if (error.errorNumber() != ENOENT)
            throw;
    } catch (const std::runtime_error& error) {
        debugTrace(error.what());
    }
    return NetworkInfo::fromText(std::string());
}

void stageFile(FileTransaction& change, const std::string& path, std::string_view content,
               const FileAttributes& attributes) {
    try {
        change.stage(path, content, attributes);
    } catch (const FileWriteError& error) {
        if (error.errorNumber() != EISDIR)
            throw;
        throw FileWriteError("Impossible to write '" + path + "': a folder stands in its place", EISDIR);
    }
}

}  // namespace keywarden
