#include "stores/CertificateAuthority.h"

#include "config/ServiceConfiguration.h"
#include "x509/Inspection.h"

namespace keywarden {

CertificateAuthority::CertificateAuthority(const ServiceConfiguration& configuration)
    : ExternalCertificatesStorage(configuration, "ca") {}

unsigned CertificateAuthority::getMaxNumberOfCertificates() const {
    return configuration().getMaximumCA();
}

bool CertificateAuthority::isValidCertificate(const X509_T& certificate) const {
    return isCertificateAuthority(certificate);
}

bool CertificateAuthority::hashMustBeUnique() const {
    return configuration().isUniqueCaByCn();
}

}  // namespace keywarden
