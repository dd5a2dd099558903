#pragma once

#include <string>
#include <string_view>

#include "network/NetworkInfo.h"
#include "support/FileTransaction.h"
#include "support/FolderSet.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

namespace keywarden {

/// The first PEM certificate of a file that a requester names. What is no regular file is refused unopened.
/// Throws std::runtime_error.
[[nodiscard]] X509_T readCertificateFile(const std::string& path);

// Files of a store, through the folders that are held; only regular files of the daemon user, and of a
// bounded size. Throw std::runtime_error with the texts of the handles that read a file by themselves when
// there is none or it is none; FileWriteError or std::bad_alloc when that cannot be told now.
[[nodiscard]] X509_T readCertificate(const FolderSet& folders, const std::string& path);
[[nodiscard]] EVP_PKEY_T readKey(const FolderSet& folders, const std::string& path);
[[nodiscard]] X509_REQ_T readRequest(const FolderSet& folders, const std::string& path);
/// Empty when there is none or it is none.
[[nodiscard]] NetworkInfo readNetwork(const FolderSet& folders, const std::string& path);

/// FileTransaction::stage, with the server store's own text for a folder in the file's place.
void stageFile(FileTransaction& change, const std::string& path, std::string_view content,
               const FileAttributes& attributes);

}  // namespace keywarden
