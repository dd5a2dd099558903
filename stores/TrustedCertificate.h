#pragma once

#include "stores/ExternalCertificatesStorage.h"

namespace keywarden {

/// The client certificates that a service accepts; the store named "client".
class TrustedCertificate : public ExternalCertificatesStorage {
  public:
    /// The configuration is read at every addition and must outlive the store.
    explicit TrustedCertificate(const ServiceConfiguration& configuration);

    unsigned getMaxNumberOfCertificates() const override;
    /// Any certificate will do.
    bool isValidCertificate(const X509_T& certificate) const override;
    bool hashMustBeUnique() const override;
};

}  // namespace keywarden
