#include "server/ServerRenewal.h"

#include <cerrno>
#include <limits>
#include <optional>
#include <utility>

#include "server/FailureTexts.h"
#include "support/Clock.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileStatus.h"
#include "support/Log.h"

namespace keywarden {

namespace {

constexpr float kSecondsPerDay = 86400.0F;

constexpr FailureTexts kNotYetValidOwn = {
    "Daemon exception caught while checking if self signed certificate is in validity period for service '",
    "std exception caught while checking if self signed certificate is in validity period for service '",
    "Unknown exception caught while checking if self signed certificate is in validity period for service '"};

// The leading blank of the third text is part of it, here and below.
constexpr FailureTexts kNotYetValidSelfSigned = {
    "Daemon exception caught while creating self signed certificate on expiration for service '",
    "std exception caught while creating self signed certificate on expiration for service '",
    " Unknown exception caught while creating self signed certificate on expiration for service '"};

constexpr FailureTexts kNotYetValidCASigned = {
    "Daemon exception caught while creating CA signed certificate on expiration for service '",
    "std exception caught while creating CA signed certificate on expiration for service '",
    " Unknown exception caught while creating CA signed certificate on expiration for service '"};

constexpr FailureTexts kExpiredOwn = {
    "Daemon exception caught while creating new self signed certificate for service '",
    "std exception caught while creating new self signed certificate for service '",
    "Unknown exception caught while creating new self signed certificate for service '"};

constexpr FailureTexts kExpiredSelfSigned = {
    "Daemon exception caught while creating new self signed certificate on expiration for service '",
    "std exception caught while creating new self signed certificate on expiration for service '",
    "Unknown exception caught while creating new self signed certificate on expiration for service '"};

constexpr FailureTexts kExpiredCASigned = {
    "Daemon exception caught while creating new CA signed certificate for service '",
    "std exception caught while creating new CA signed certificate for service '",
    "Unknown exception caught while creating new CA signed certificate for service '"};

// Truncated toward zero. A record with an absurd time must not leave the range of int.
int wholeDays(float days) {
    constexpr float kLimit = 2.0E9F;
    if (days >= kLimit)
        return std::numeric_limits<int>::max();
    if (days <= -kLimit)
        return std::numeric_limits<int>::min();
    return static_cast<int>(days);
}

// Of the certificate in force. Only what the system says does not exist counts as missing.
bool isCertificateFileMissing(const std::string& service) {
    const InternalCertificatesAccessor store(service, "server");
    const std::string id = store.getActive();
    return id.empty() || (!statusOfPath(store.certPath(id)) && errno == ENOENT);
}

}  // namespace

ServerRenewal::ServerRenewal(const ServiceConfiguration& configuration, ServerStore& store,
                             ServerIssuer& issuer, std::shared_ptr<ServiceCallbacks> callbacks)
    : configuration_(configuration), store_(store), issuer_(issuer), callbacks_(std::move(callbacks)) {}

void ServerRenewal::checkAtStart(bool isPresent) {
    if (isPresent)
        checkNetworkInfo();
    else
        issuer_.createCertificate();
    if (store_.isCertificatePresent())
        checkTimeValidity(Healing::No);
}

void ServerRenewal::checkNetworkInfo() {
    if (isNetworkInfoValid())
        return;
    // "fo" is how the text goes.
    Log::write(SeverityNotice, "Network information fo the server certificate for service '" + name() +
                                   "' are not valid anymore.");
    if (store_.isCertificateSelfSigned() || configuration_.isNetworkInvalidRevokePKIcert())
        issuer_.createCertificate();
}

void ServerRenewal::checkTimeValidity() {
    checkTimeValidity(Healing::Yes);
}

void ServerRenewal::checkTimeValidity(Healing healing) {
    if (Common::isDateOld()) {
        Log::write(
            SeverityError,
            "WARNING: System Date is old, for creating & applying self signed certificate for service " +
                name());
        return;
    }
    if (healing == Healing::Yes)
        healBeforeCheck();
    if (!store_.isCertificatePresent())
        issuer_.createCertificate();
    const CertificateInfo* const record = store_.record();
    if (record == nullptr) {
        Log::write(SeverityError, "ERROR: Certificate info pointer is not being initialised");
        return;
    }
    const DaysLeft days = daysLeft(*record);
    logDays(days);
    if (days.validIn > 0)
        handleNotYetValid(days);
    else if (days.expireIn > 0)
        reportDays(days, "expireIn", days.expireIn);
    else
        handleExpired(days);
    followCA();
}

void ServerRenewal::healBeforeCheck() {
    const ServerStore::Health health = store_.heal();
    if (health == ServerStore::Health::WithoutCertificate)
        return;
    if (health == ServerStore::Health::Broken)
        issuer_.createCertificate();
    store_.tellAgain();
}

ServerRenewal::DaysLeft ServerRenewal::daysLeft(const CertificateInfo& record) const {
    const auto days = [this](std::uint64_t timestamp) {
        return static_cast<float>(getTimeBeforeTimestamp(static_cast<std::int64_t>(timestamp))) /
               kSecondsPerDay;
    };
    const float offset =
        static_cast<float>(configuration_.getCertDailyExpiryChkTimeOffsetSecs()) / kSecondsPerDay;
    return {days(record.validFrom), days(record.validUntil) - offset};
}

void ServerRenewal::logDays(const DaysLeft& days) const {
    Log::write(SeverityNotice, "Days before validity of server certificate for service '" + name() +
                                   "' : " + std::to_string(days.validIn) + " days.");
    Log::write(SeverityNotice,
               "Days before expiration of server certificate considering the expiry check offset time for "
               "service '" +
                   name() + "' : " + std::to_string(days.expireIn) + " days.");
}

void ServerRenewal::reportDays(const DaysLeft& days, const std::string& word, float figure) {
    Log::write(SeverityInfo, "Callback script called for service '" + name() + "' with '" + word + "' of '" +
                                 std::to_string(figure) + "' days.");
    callbacks_->updateValidityGeneratedCertificate(wholeDays(days.validIn), wholeDays(days.expireIn));
}

// A self-signed certificate is replaced whatever the settings say; one from an external PKI only if they ask.
void ServerRenewal::handleNotYetValid(const DaysLeft& days) {
    if (store_.isCertificateSelfSigned())
        orLog(kNotYetValidOwn, name(), [this] { issuer_.createAndApplySelfSigned(); });
    else if (configuration_.isSelfSignedOnExpiration())
        orLog(kNotYetValidSelfSigned, name(), [this] { issuer_.createAndApplySelfSigned(); });
    else if (configuration_.isCASignedOnExpiration())
        orLog(kNotYetValidCASigned, name(), [this] { issuer_.createAndApplyCASigned(); });
    else
        reportDays(days, "validIn", days.validIn);
}

void ServerRenewal::handleExpired(const DaysLeft& days) {
    // The blank at the end is part of the text.
    Log::write(SeverityNotice, "Current certificate is expired for service '" + name() + "' ");
    if (store_.isCertificateSelfSigned()) {
        Log::write(SeverityNotice,
                   "Creating a new SelfSigned certificate for service: " + name() + " as it is expired.");
        orLog(kExpiredOwn, name(), [this] { issuer_.createAndApplySelfSigned(); });
    } else if (configuration_.isSelfSignedOnExpiration()) {
        Log::write(SeverityNotice,
                   "Creating a new SelfSigned certificate for service '" + name() + "' as it is expired.");
        orLog(kExpiredSelfSigned, name(), [this] { issuer_.createAndApplySelfSigned(); });
    } else if (configuration_.isCASignedOnExpiration()) {
        Log::write(SeverityNotice,
                   "Creating a new CA-Signed certificate for service '" + name() + "' as it is expired.");
        orLog(kExpiredCASigned, name(), [this] { issuer_.createAndApplyCASigned(); });
    } else {
        // Not negated by a sign: an expiry at this very moment would read "-0.000000".
        reportDays(days, "server expireFrom", 0.0F - days.expireIn);
    }
}

void ServerRenewal::followCA() {
    if (!configuration_.isCASignedGeneration() || !isCertificateMatchingCA())
        return;
    Log::write(SeverityNotice, "Creating a new CA-Signed certificate for service '" + name() +
                                   "' as the CA server certificate got renewed.");
    orLog(kExpiredCASigned, name(), [this] { issuer_.createAndApplyCASigned(); });
}

bool ServerRenewal::isNetworkInfoValid() const {
    debugTrace("Checking if network is valid for service: " + name());
    const std::optional<NetworkInfo> recorded = store_.recordedNetwork();
    if (!recorded)
        return false;
    debugTrace("Reading current network information based on service config file.");
    const NetworkInfo current(configuration_);
    debugTrace("Checking if the certificate network information present in current network information.");
    return current.isIncludeIn(*recorded);
}

// By way of unsigned numbers, which wrap where a damaged record would overflow.
std::int64_t ServerRenewal::getTimeBeforeTimestamp(std::int64_t timestamp) const {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(timestamp) -
                                     static_cast<std::uint64_t>(Clock::now()));
}

bool ServerRenewal::isCertificateMatchingCA() const {
    const std::int64_t own = getServerCertificateTimestamp(name());
    // One that is there and could not be looked at for a moment is not older than the CA's: it stays.
    if (own == 0 && !isCertificateFileMissing(name()))
        return false;
    return own < getServerCertificateTimestamp(configuration_.getCAServiceId());
}

std::int64_t ServerRenewal::getServerCertificateTimestamp(const std::string& service) const {
    try {
        const InternalCertificatesAccessor store(service, "server");
        const std::string id = store.getActive();
        // Without an id the path is the folder's, whose time says nothing.
        const auto status = id.empty() ? std::nullopt : statusOfPath(store.certPath(id));
        return status ? status->changeTime : 0;
    } catch (...) {
        const Failure failure = Failure::current();
        Log::write(SeverityInfo,
                   failure.message(
                       "Std exception caught while getting server certificate timestamp for service: " +
                           service + ": ",
                       "Unknown exception caught while getting server certificate timestamp for service: " +
                           service));
        return 0;
    }
}

}  // namespace keywarden
