#pragma once

#include <string>

#include "ctl/Requester.h"

namespace keywardctl {

/// A copy of a user's file in the service's pipes folder, where the daemon can read it whatever the rights of
/// the file and of the folders above it are; removed with the object. Certificates are public: the copy may
/// be read by everybody who gets into the folder.
class PassedCertificate {
  public:
    /// Throws Problem when the file cannot be read, is no regular file, is larger than a certificate may be,
    /// or holds a private key, which must go nowhere.
    PassedCertificate(const Requester& requester, const std::string& source);
    PassedCertificate(const PassedCertificate&) = delete;
    PassedCertificate& operator=(const PassedCertificate&) = delete;
    ~PassedCertificate();

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace keywardctl
