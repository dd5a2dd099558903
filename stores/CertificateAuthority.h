#pragma once

#include "stores/ExternalCertificatesStorage.h"

namespace keywarden {

/// The certificates of the authorities that a service trusts; the store named "ca".
class CertificateAuthority : public ExternalCertificatesStorage {
  public:
    /// The configuration is read at every addition and must outlive the store.
    explicit CertificateAuthority(const ServiceConfiguration& configuration);

    unsigned getMaxNumberOfCertificates() const override;
    /// Only a certificate that may sign others.
    bool isValidCertificate(const X509_T& certificate) const override;
    bool hashMustBeUnique() const override;
};

}  // namespace keywarden
