// A certificate signed by another service of the device, whose own server certificate is the CA.
#include <stdexcept>
#include <utility>

#include "server/FailureTexts.h"
#include "server/ServerIssuer.h"
#include "server/StoreFiles.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/FolderSet.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "x509/Inspection.h"
#include "x509/Signing.h"
#include "x509/X509_REQ_T.h"

namespace keywarden {

namespace {

// The blank after the quote is part of the text.
constexpr std::string_view kLoadingStandard = "Std exception caught while loading CA files for service ' ";
constexpr FailureTexts kLoadingFailed = {kLoadingStandard, kLoadingStandard,
                                         "Unknown exception caught while loading CA files for service ' "};

constexpr std::string_view kRequestStandard =
    "Std exception caught while generating Csr for CA signed for service '";
constexpr FailureTexts kRequestFailed = {
    kRequestStandard, kRequestStandard,
    "Unknown exception caught while generating Csr for CA signed for service '"};

constexpr FailureTexts kPeriodFailed = {
    "Daemon exception received during setting the valid seconds during CA signed certificate generation for "
    "service '",
    "Std exception received during setting the valid seconds during CA signed certificate generation for "
    "service '",
    "Generic exception received during setting the valid seconds during CA signed certificate generation "
    "for service '"};

struct CertificateAuthorityFiles {
    X509_T certificate;
    EVP_PKEY_T key;
};

CertificateAuthorityFiles readOnce(const InternalCertificatesAccessor& store) {
    const std::string id = store.getActive();
    const FolderSet folders({store.certificateDirectoryPath()});
    CertificateAuthorityFiles files{readCertificate(folders, store.certPath(id)),
                                    readKey(folders, store.certKeyPath(id))};
    if (!keyMatchesCertificate(files.key, files.certificate))
        throw std::runtime_error("The key does not belong to the certificate.");
    return files;
}

// The other service may be renewing its certificate right now; its lock cannot be taken, since two services
// that sign each other would wait for good. A second look then finds the new pair.
CertificateAuthorityFiles readCertificateAuthority(const std::string& service) {
    const InternalCertificatesAccessor store(service, "server");
    try {
        return readOnce(store);
    } catch (const std::exception& error) {
        debugTrace("Reading the CA files of service " + service + " again: " + error.what());
    }
    return readOnce(store);
}

}  // namespace

void ServerIssuer::createAndApplyCASigned() {
    Log::write(SeverityNotice, "The service " + name() + " is creating a CA signed certificate...");
    if (Common::isDateOld())
        throw KeywardenDaemonException("Not able to create and apply CA signed certificate for service '" +
                                       name() + "' as the system date is old.");
    if (configuration_.getCAServiceId().empty() || configuration_.getCAServiceId() == name())
        throw KeywardenDaemonException("CA signed certificate for service '" + name() + "' is not allowed");
    const CertificateAuthorityFiles authority = orThrow(
        kLoadingFailed, name(), [this] { return readCertificateAuthority(configuration_.getCAServiceId()); });
    const NetworkInfo network(configuration_);
    const auto [key, request] = orThrow(kRequestFailed, name(), [this] {
        const auto settings = requestSettings(false);
        const kwdata::CCertificateData data = readCnfConfiguration(*settings);
        EVP_PKEY_T newKey(data);
        X509_REQ_T newRequest(data, newKey);
        return std::make_pair(std::move(newKey), std::move(newRequest));
    });
    std::uint64_t from = 0;
    std::uint64_t until = 0;
    std::uint64_t seconds = 0;
    orThrow(kPeriodFailed, name(), [&] { setValidSeconds(false, from, until, seconds); });
    const X509_T certificate =
        signX509WithCA(authority.certificate, authority.key, request, from, until, seconds);
    debugTrace("CA signed certificate for service " + name() + " Ok.");
    store_.installCertificate(certificate, key, network);
    debugTrace("Create and apply a CA signed certificate for service " + name() + "... Done.");
}

}  // namespace keywarden
