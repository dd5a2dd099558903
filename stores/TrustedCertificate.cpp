#include "stores/TrustedCertificate.h"

#include "config/ServiceConfiguration.h"

namespace keywarden {

TrustedCertificate::TrustedCertificate(const ServiceConfiguration& configuration)
    : ExternalCertificatesStorage(configuration, "client") {}

unsigned TrustedCertificate::getMaxNumberOfCertificates() const {
    return configuration().getMaximumTrustedClients();
}

bool TrustedCertificate::isValidCertificate(const X509_T& /*certificate*/) const {
    return true;
}

bool TrustedCertificate::hashMustBeUnique() const {
    return configuration().isUniqueTrustedClientByCn();
}

}  // namespace keywarden
