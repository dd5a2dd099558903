#include "x509/CertificateTime.h"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdint>
#include <ctime>
#include <string_view>

#include "support/Clock.h"
#include "support/Log.h"
#include "support/Tools.h"
#include "x509/MemoryWatch.h"

namespace keywarden {

namespace {

constexpr std::int64_t kSecondsADay = 86400;
constexpr std::int64_t kDayOf1900 = -25567;   // 1900-01-01, counted from the epoch
constexpr std::int64_t kDayOf9999 = 2932896;  // 9999-12-31
constexpr int kMissing = -1;

/// Reads decimal digits two at a time.
class Digits {
  public:
    explicit Digits(const ASN1_TIME* time)
        : rest_(reinterpret_cast<const char*>(ASN1_STRING_get0_data(time)),
                static_cast<std::size_t>(ASN1_STRING_length(time))) {}

    /// The next two digits; -1, and nothing consumed, when there are none.
    int nextPair() {
        if (rest_.size() < 2 || !isDigit(rest_[0]) || !isDigit(rest_[1])) {
            return kMissing;
        }
        const int pair = (rest_[0] - '0') * 10 + (rest_[1] - '0');
        rest_.remove_prefix(2);
        return pair;
    }

  private:
    static bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

    std::string_view rest_;
};

// RFC 5280 puts the turn of a two-digit year at 50; this program's is 70.
int shortYear(int pair) {
    if (pair == kMissing) {
        return kMissing;
    }
    return pair + (pair < 70 ? 2000 : 1900);
}

int yearOf(int type, Digits& digits) {
    if (type == V_ASN1_UTCTIME) {
        return shortYear(digits.nextPair());
    }
    if (type == V_ASN1_GENERALIZEDTIME) {
        const int century = digits.nextPair();
        const int year = digits.nextPair();
        return century == kMissing || year == kMissing ? kMissing : century * 100 + year;
    }
    return kMissing;
}

// Days and the seconds of the day apart: the count of seconds does not fit a 32-bit device's time_t for long.
bool setAbsolute(ASN1_TIME* time, std::int64_t seconds) {
    const std::int64_t past = seconds % kSecondsADay;  // negative before the epoch
    const std::int64_t day = seconds / kSecondsADay - (past < 0 ? 1 : 0);
    const std::int64_t rest = past < 0 ? past + kSecondsADay : past;
    const MemoryWatch watch;
    if (day < kDayOf1900 || day > kDayOf9999 ||
        ASN1_TIME_adj(time, 0, static_cast<int>(day), static_cast<long>(rest)) == nullptr) {
        watch.throwIfRefused();
        ERR_clear_error();
        return false;
    }
    return true;
}

std::int64_t epochSeconds(const ASN1_TIME* time) {
    return static_cast<std::int64_t>(asn1datetime_isodatetime(time));
}

bool notEncodable() {
    Log::write(SeverityError,
               "Certificate creation aborted because a date is out of the range of certificates");
    return false;
}

// The end is counted from the start that was asked for, not from the CA's: an earlier start must not make the
// certificate last longer than the caller wanted.
bool startWithCa(X509* certificate, const X509* ca, unsigned long long validSeconds) {
    const std::int64_t askedStart = epochSeconds(X509_get0_notBefore(certificate));
    const std::int64_t length = static_cast<std::uint32_t>(validSeconds);
    return X509_set1_notBefore(certificate, X509_get0_notBefore(ca)) == 1 &&
           setAbsolute(X509_getm_notAfter(certificate), askedStart + length);
}

}  // namespace

unsigned long long asn1datetime_isodatetime(const ASN1_TIME* time) {
    if (time == nullptr) {
        return UINT64_MAX;
    }
    Digits digits(time);
    std::tm fields = {};
    fields.tm_year = yearOf(ASN1_STRING_type(time), digits) - 1900;
    const int month = digits.nextPair();
    fields.tm_mon = month == kMissing ? kMissing : month - 1;
    fields.tm_mday = digits.nextPair();
    fields.tm_hour = digits.nextPair();
    fields.tm_min = digits.nextPair();
    fields.tm_sec = digits.nextPair();
    return static_cast<unsigned long long>(Tools::getInternalTimeGmt(&fields));
}

bool setCertificateTime(ASN1_TIME* time, unsigned long long secondsSinceEpoch) {
    const auto now = static_cast<unsigned long long>(Clock::now());
    const auto offset = static_cast<long>(secondsSinceEpoch - now);
    return setAbsolute(time, static_cast<std::int64_t>(now + static_cast<unsigned long long>(offset)));
}

bool set_cert_time(const unsigned long long& validFrom, const unsigned long long& validTo,
                   const unsigned long long& validSeconds, X509_T& cert, const X509_T& caCert) {
    const MemoryWatch watch;
    X509* certificate = cert.get();
    const X509* ca = caCert.get();
    if (!setCertificateTime(X509_getm_notBefore(certificate), validFrom) ||
        !setCertificateTime(X509_getm_notAfter(certificate), validTo)) {
        return notEncodable();
    }
    const std::int64_t askedStart = epochSeconds(X509_get0_notBefore(certificate));
    const std::int64_t askedEnd = epochSeconds(X509_get0_notAfter(certificate));
    if (askedStart < epochSeconds(X509_get0_notBefore(ca)) && !startWithCa(certificate, ca, validSeconds)) {
        return notEncodable();
    }
    if (epochSeconds(X509_get0_notAfter(ca)) < askedEnd) {
        X509_set1_notAfter(certificate, X509_get0_notAfter(ca));
    }
    watch.throwIfRefused();  // the end may be the one that was asked for, and not the CA's
    if (epochSeconds(X509_get0_notAfter(certificate)) < epochSeconds(X509_get0_notBefore(certificate))) {
        Log::write(SeverityError,
                   "Certificate creation aborted because end date is set prior to the start date");
        return false;
    }
    return true;
}

}  // namespace keywarden
