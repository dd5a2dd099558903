// The periodic check: how many days are left, who is told, and what is made anew.
#include <limits>

#include "server/FailureTexts.h"
#include "server/Server.h"
#include "server/ServerEvents.h"
#include "server/StoreFiles.h"
#include "support/Clock.h"
#include "support/Common.h"
#include "support/Debug.h"
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

}  // namespace

void Server::checkTimeValidity() {
    checkTimeValidity(true);
}

void Server::checkTimeValidity(bool healing) {
    if (Common::isDateOld()) {
        Log::write(
            SeverityError,
            "WARNING: System Date is old, for creating & applying self signed certificate for service " +
                name());
        return;
    }
    if (healing)
        healBeforeCheck();
    if (!isCertificatePresent())
        createCertificate();
    if (!certificateInfo) {
        Log::write(SeverityError, "ERROR: Certificate info pointer is not being initialised");
        return;
    }
    const DaysLeft days = daysLeft();
    logDays(days);
    if (days.validIn > 0)
        handleNotYetValid(days);
    else if (days.expireIn > 0)
        reportDays(days, "expireIn", days.expireIn);
    else
        handleExpired(days);
    followCA();
}

Server::DaysLeft Server::daysLeft() const {
    const auto days = [this](std::uint64_t timestamp) {
        return static_cast<float>(getTimeBeforeTimestamp(static_cast<std::int64_t>(timestamp))) /
               kSecondsPerDay;
    };
    const float offset =
        static_cast<float>(configuration.getCertDailyExpiryChkTimeOffsetSecs()) / kSecondsPerDay;
    return {days(certificateInfo->validFrom), days(certificateInfo->validUntil) - offset};
}

void Server::logDays(const DaysLeft& days) const {
    Log::write(SeverityNotice, "Days before validity of server certificate for service '" + name() +
                                   "' : " + std::to_string(days.validIn) + " days.");
    Log::write(SeverityNotice,
               "Days before expiration of server certificate considering the expiry check offset time for "
               "service '" +
                   name() + "' : " + std::to_string(days.expireIn) + " days.");
}

void Server::reportDays(const DaysLeft& days, const std::string& word, float figure) {
    Log::write(SeverityInfo, "Callback script called for service '" + name() + "' with '" + word + "' of '" +
                                 std::to_string(figure) + "' days.");
    callbacks->updateValidityGeneratedCertificate(wholeDays(days.validIn), wholeDays(days.expireIn));
}

// A self-signed certificate is replaced whatever the settings say; one from an external PKI only if they ask.
void Server::handleNotYetValid(const DaysLeft& days) {
    if (isCertificateSelfSigned())
        orLog(kNotYetValidOwn, name(), [this] { createAndApplySelfSigned(); });
    else if (configuration.isSelfSignedOnExpiration())
        orLog(kNotYetValidSelfSigned, name(), [this] { createAndApplySelfSigned(); });
    else if (configuration.isCASignedOnExpiration())
        orLog(kNotYetValidCASigned, name(), [this] { createAndApplyCASigned(); });
    else
        reportDays(days, "validIn", days.validIn);
}

void Server::handleExpired(const DaysLeft& days) {
    // The blank at the end is part of the text.
    Log::write(SeverityNotice, "Current certificate is expired for service '" + name() + "' ");
    if (isCertificateSelfSigned()) {
        Log::write(SeverityNotice,
                   "Creating a new SelfSigned certificate for service: " + name() + " as it is expired.");
        orLog(kExpiredOwn, name(), [this] { createAndApplySelfSigned(); });
    } else if (configuration.isSelfSignedOnExpiration()) {
        Log::write(SeverityNotice,
                   "Creating a new SelfSigned certificate for service '" + name() + "' as it is expired.");
        orLog(kExpiredSelfSigned, name(), [this] { createAndApplySelfSigned(); });
    } else if (configuration.isCASignedOnExpiration()) {
        Log::write(SeverityNotice,
                   "Creating a new CA-Signed certificate for service '" + name() + "' as it is expired.");
        orLog(kExpiredCASigned, name(), [this] { createAndApplyCASigned(); });
    } else {
        // Not negated by a sign: an expiry at this very moment would read "-0.000000".
        reportDays(days, "server expireFrom", 0.0F - days.expireIn);
    }
}

void Server::followCA() {
    if (!isCASignedGeneration() || !isCertificateMatchingCA())
        return;
    Log::write(SeverityNotice, "Creating a new CA-Signed certificate for service '" + name() +
                                   "' as the CA server certificate got renewed.");
    orLog(kExpiredCASigned, name(), [this] { createAndApplyCASigned(); });
}

bool Server::isNetworkInfoValid() {
    debugTrace("Checking if network is valid for service: " + name());
    const std::string path = accessor.certNetworkPath(activeId());
    if (!folders.exists(path)) {
        Log::write(SeverityNotice, path + " file not found.");
        return false;
    }
    debugTrace("Reading network information from the " + path + " file.");
    const NetworkInfo recorded = readNetwork(folders, path);
    debugTrace("Reading current network information based on service config file.");
    const NetworkInfo current(configuration);
    debugTrace("Checking if the certificate network information present in current network information.");
    return current.isIncludeIn(recorded);
}

// By way of unsigned numbers, which wrap where a damaged record would overflow.
std::int64_t Server::getTimeBeforeTimestamp(std::int64_t timestamp) const {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(timestamp) -
                                     static_cast<std::uint64_t>(Clock::now()));
}

}  // namespace keywarden
