#include "server/ServerIssuer.h"

#include <utility>

#include "cnf/CnfFileConfiguration.h"
#include "cnf/CnfHookConfiguration.h"
#include "server/AltNames.h"
#include "server/FailureTexts.h"
#include "support/Clock.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/UtcText.h"
#include "x509/Signing.h"

namespace keywarden {

namespace {

constexpr std::uint64_t kDay = 86400;
// 1999-12-30 12:00:00 UTC.
constexpr std::uint64_t kEarliestValidFrom = 946555200;

constexpr FailureTexts kCASignedFailed = {
    "Daemon exception caught while creating and applying CA signed certificate for service '",
    "std exception caught while creating and applying CA signed certificate for service '",
    "Unknown exception caught while creating and applying CA signed certificate for service '"};

// "selfsigned" and "self signed" differ on purpose.
constexpr FailureTexts kSelfSignedFailed = {
    "Daemon exception caught while creating and applying selfsigned certificate for service '",
    "std exception caught while creating and applying self signed certificate for service '",
    "Unknown exception caught while creating and applying self signed certificate for service '"};

constexpr FailureTexts kPeriodFailed = {
    "Daemon exception received during setting the valid seconds before and after during self signed "
    "certificate generation for service '",
    "Std exception received during setting the valid seconds before and after during self signed "
    "certificate generation for service '",
    "Generic exception received during setting the valid seconds before and after during selfsigned "
    "certificate generation for service '"};

constexpr std::string_view kMakingFailedText = "Failed creating X509 Certificate for service '";
constexpr FailureTexts kMakingFailed = {kMakingFailedText, kMakingFailedText, kMakingFailedText};

std::uint64_t startOfDay(std::uint64_t time) {
    return time - time % kDay;
}

std::uint64_t days(std::int32_t count) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(count)) * kDay;
}

}  // namespace

ServerIssuer::ServerIssuer(const ServiceConfiguration& configuration, ServerStore& store)
    : configuration_(configuration), store_(store) {}

std::map<std::string, std::string> ServerIssuer::buildAltName() const {
    debugTrace("Creating altnames for service " + name() + "...");
    return altNamesOf(configuration_, configuration_);
}

std::map<std::string, std::string> ServerIssuer::buildAltName(const OverrideStaticConfig& override) const {
    debugTrace("Creating altnames for service " + name() + " with overrided config...");
    ServiceConfiguration overridden(configuration_);
    if (override.excludeIpForAllNetworkInterfaces)
        overridden.setExcludeIpForAllNetworkInterfaces();
    return altNamesOf(configuration_, overridden);
}

kwdata::CCertificateData ServerIssuer::readCnfConfiguration(CnfConfiguration& cnf) const {
    kwdata::CCertificateData data = cnf.getCCertificateData();
    addAltNames(data, buildAltName(), name());
    return data;
}

kwdata::CCertificateData ServerIssuer::readCnfConfiguration(CnfConfiguration& cnf,
                                                            const OverrideStaticConfig& override) const {
    kwdata::CCertificateData data = cnf.getCCertificateData();
    addAltNames(data, buildAltName(override), name());
    return data;
}

// Either kind ends in the installation, which loads the new record.
void ServerIssuer::createCertificate() {
    if (configuration_.isCASignedGeneration()) {
        Log::write(SeverityNotice, "Create and Apply CA-Signed certificate for service '" + name() +
                                       "' as generatin is needed.");
        orLog(kCASignedFailed, name(), [this] { createAndApplyCASigned(); });
    } else if (configuration_.isSelfSignedGeneration()) {
        Log::write(SeverityNotice, "Create and Apply SelfSigned certificate for service '" + name() +
                                       "' as generatin is needed.");
        orLog(kSelfSignedFailed, name(), [this] { createAndApplySelfSigned(); });
    } else {
        Log::write(SeverityNotice,
                   "Certificate for service '" + name() + "' can not be created as signed type is disabled.");
    }
}

void ServerIssuer::createAndApplySelfSigned() {
    debugTrace("Create and apply a self signed certificate...");
    Log::write(SeverityNotice, "The service " + name() + " is creating a server selfsigned certificate...");
    if (Common::isDateOld())
        throw KeywardenDaemonException("Not able to create and apply self signed certificate for service '" +
                                       name() + "' as the system date is old.");
    const NetworkInfo network(configuration_);
    const auto settings = requestSettings(true);
    kwdata::CCertificateData data = readCnfConfiguration(*settings);
    orThrow(kPeriodFailed, name(), [&] {
        std::uint64_t validSeconds = 0;
        setValidSeconds(true, data.validNotBeforeDate, data.validNotAfterDate, validSeconds);
    });
    const auto [key, certificate] = orThrow(kMakingFailed, name(), [&data] {
        EVP_PKEY_T newKey(data);
        X509_T newCertificate = createX509SelfSignedCertificate(data, newKey);
        return std::make_pair(std::move(newKey), std::move(newCertificate));
    });
    debugTrace("Generated self signed certificate successfully!");
    store_.installCertificate(certificate, key, network);
    debugTrace("Create and apply a self signed certificate... done.");
}

std::unique_ptr<CnfConfiguration> ServerIssuer::requestSettings(bool selfSigned) const {
    if (!configuration_.getCnfFile().empty())
        return std::make_unique<CnfFileConfiguration>(configuration_.getCnfFile());
    return std::make_unique<CnfHookConfiguration>(configuration_.getCnfHookFile(), name(), selfSigned);
}

// Unsigned throughout: an offset that reaches before the epoch wraps, and the period is then judged as it
// falls.
void ServerIssuer::setValidSeconds(bool selfSigned, std::uint64_t& validFrom, std::uint64_t& validUntil,
                                   std::uint64_t& validSeconds) const {
    const std::uint64_t offset = days(selfSigned ? configuration_.getSelfSignedValidityOffset()
                                                 : configuration_.getCASignedValidityOffset());
    const std::uint64_t validity =
        days(selfSigned ? configuration_.getSelfSignedValidity() : configuration_.getCASignedValidity());
    const std::uint64_t from = static_cast<std::uint64_t>(Clock::now()) - offset;
    validFrom = startOfDay(from);
    validUntil = startOfDay(from + validity);
    validSeconds = validUntil - validFrom;
    if (validFrom >= validUntil)
        throw KeywardenDaemonException("Requested valid until '" + utcText(validUntil) +
                                       "' is not higher than valid from time '" + utcText(validFrom) + "'.");
    if (validFrom < kEarliestValidFrom)
        throw KeywardenDaemonException("Requested valid from time '" + utcText(validFrom) +
                                       "' is beyond the allowed lower limit of time '" +
                                       utcText(kEarliestValidFrom) + "'.");
}

}  // namespace keywarden
