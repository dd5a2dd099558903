// The pending request for an external PKI, and the certificate that comes back for it.
#include <new>
#include <utility>

#include "channel/Answer.h"
#include "server/FailureTexts.h"
#include "server/ServerIssuer.h"
#include "server/StoreFiles.h"
#include "support/Clock.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileWriteError.h"
#include "support/KeywardenDaemonException.h"
#include "support/Tools.h"
#include "x509/Description.h"
#include "x509/Inspection.h"
#include "x509/Validation.h"

namespace keywarden {

namespace {

constexpr FailureTexts kCreatingFailed = {"Daemon exception caught while creating Csr for service '",
                                          "Std exception caught while creating CSR for service '",
                                          "Unknown exception caught while creating CSR for service '"};

constexpr std::string_view kReadingText =
    "Certificate reading failed during applyCrt operation for service '";
constexpr FailureTexts kReadingFailed = {kReadingText, kReadingText, kReadingText};

// What is read here is a request that was made earlier; the text speaks of its creation.
constexpr std::string_view kRequestText = "Not able to create the CSR for service '";
constexpr FailureTexts kRequestFailed = {kRequestText, kRequestText, kRequestText};

constexpr std::string_view kDescribingText =
    "Std exception caught while getting server csr data for service '";
constexpr FailureTexts kDescribingFailed = {
    kDescribingText, kDescribingText, "Unknown exception caught while getting server csr data for service '"};

}  // namespace

void ServerIssuer::createCsr() {
    debugTrace("Create csr for service-" + name() + "...");
    createPendingRequest([this](CnfConfiguration& settings) { return readCnfConfiguration(settings); });
}

void ServerIssuer::createCsr(const OverrideStaticConfig& override) {
    debugTrace("Create csr for service-" + name() + " with config overrided...");
    createPendingRequest(
        [&](CnfConfiguration& settings) { return readCnfConfiguration(settings, override); });
}

void ServerIssuer::createPendingRequest(
    const std::function<kwdata::CCertificateData(CnfConfiguration&)>& readSettings) {
    try {
        store_.removeCsr();
        // The whole identity, also when the request leaves the addresses out.
        const NetworkInfo network(configuration_);
        const kwdata::CCertificateData data = readSettings(*requestSettings(false));
        const EVP_PKEY_T key(data);
        store_.savePendingRequest(key, X509_REQ_T(data, key), network);
    } catch (...) {
        const bool ofTheDaemon = Failure::current().kind() == Failure::Kind::Daemon;
        const std::string message = describeFailure(kCreatingFailed, name());
        store_.removeCsr();
        // Only the daemon's own exception is followed by a quote and a full stop.
        throw KeywardenDaemonException(ofTheDaemon ? message + "'." : message);
    }
    debugTrace("Create csr for service-" + name() + "... Done.");
}

std::string ServerIssuer::getCsrInfo() const {
    return orThrow(kDescribingFailed, name(), [this] { return getCsrDataString(store_.pendingRequest()); });
}

void ServerIssuer::applyCrt(const std::string& path) {
    debugTrace("Apply certificate from External PKI...");
    const X509_T certificate = readCertificateToApply(path);
    const auto [request, key] = readPendingRequest();
    // Signed: a moment before the epoch is long past.
    if (static_cast<std::int64_t>(notAfterOf(certificate)) < Clock::now())
        throw KeywardenDaemonException(
            "End date of Certificate you are trying to apply is beyond the current system");
    // The key's folder is less well guarded than the request's: what does not fit is not installed.
    if (!validateCsrAndCrt(request, certificate) || !keyMatchesCertificate(key, certificate))
        throw KeywardenDaemonException(AnswerNotForTheRequest, "Error in validating csr and crt");
    const NetworkInfo network = store_.pendingNetwork();
    store_.installCertificate(certificate, key, network);
    debugTrace("Apply certificate from External PKI... done.");
}

X509_T ServerIssuer::readCertificateToApply(const std::string& path) const {
    if (path.empty())
        throw KeywardenDaemonException("Certificate path is empty.");
    // "exit" is how the text goes.
    if (!Tools::fileExist(path))
        throw KeywardenDaemonException("Certificate " + path + " doesn't exit.");
    try {
        return readCertificateFile(path);
    } catch (...) {
        throw KeywardenDaemonException(AnswerCertificateInvalid, describeFailure(kReadingFailed, name()));
    }
}

std::pair<X509_REQ_T, EVP_PKEY_T> ServerIssuer::readPendingRequest() {
    try {
        X509_REQ_T request = store_.pendingRequest();
        EVP_PKEY_T key = store_.pendingKey();
        return {std::move(request), std::move(key)};
    } catch (const FileWriteError&) {
        // A disk or a want of descriptors that may be over in a moment: the request can still be used.
        throw KeywardenDaemonException(AnswerRequestUnreadable, describeFailure(kRequestFailed, name()));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        const std::string message = describeFailure(kRequestFailed, name());
        store_.removeCsr();
        throw KeywardenDaemonException(AnswerRequestUnreadable, message);
    }
}

}  // namespace keywarden
