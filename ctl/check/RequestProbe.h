#pragma once

#include <map>
#include <string>
#include <vector>

#include "cnf/CCertificateData.h"
#include "config/ConfigKeys.h"

namespace keywardctl::check {

/// What the daemon would make of request settings: they go through its own reader and its own way to build a
/// request. A program for the common name is not run; a stand-in takes its place.
class RequestProbe {
  public:
    explicit RequestProbe(const std::map<std::string, std::string>& settings);

    [[nodiscard]] const kwdata::CCertificateData& data() const { return data_; }
    /// The keys of the extensions whose value OpenSSL does not take.
    [[nodiscard]] std::vector<keywarden::ConfigKey> refusedExtensions() const;
    /// The keys of the parts of the subject that OpenSSL does not take.
    [[nodiscard]] std::vector<keywarden::ConfigKey> refusedSubject() const;
    /// Whether a certificate made with them may sign others.
    [[nodiscard]] bool makesAuthority() const;

  private:
    kwdata::CCertificateData data_;
};

}  // namespace keywardctl::check
