#pragma once

#include <string>
#include <string_view>

#include "support/FileWriter.h"
#include "x509/X509_T.h"

namespace keywarden {

/// The first PEM certificate of a file that a requester names. What is no regular file is refused unopened.
/// Throws std::runtime_error.
[[nodiscard]] X509_T readCertificateFile(const std::string& path);

/// Throws std::runtime_error when something else than a file stands in the path's place: opening a fifo there
/// would hold up the service. A missing file passes.
void refuseSpecialFile(const std::string& path);

/// FileWriter::stage; a folder in the file's place is refused at once (FileWriteError), since the rename
/// would fail only after the files staged before it are in place.
void stageFile(FileWriter& writer, const std::string& path, std::string_view content,
               const FileAttributes& attributes);

}  // namespace keywarden
