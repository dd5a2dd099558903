#pragma once

#include <string>
#include <string_view>

#include "support/FileTransaction.h"
#include "x509/X509_T.h"

namespace keywarden {

/// The first PEM certificate of a file that a requester names. What is no regular file is refused unopened.
/// Throws std::runtime_error.
[[nodiscard]] X509_T readCertificateFile(const std::string& path);

/// Throws std::runtime_error when something else than a file stands in the path's place: opening a fifo there
/// would hold up the service. A missing file passes.
void refuseSpecialFile(const std::string& path);

/// FileTransaction::stage, with the server store's own text for a folder in the file's place.
void stageFile(FileTransaction& change, const std::string& path, std::string_view content,
               const FileAttributes& attributes);

}  // namespace keywarden
