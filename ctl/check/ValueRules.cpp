#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "ctl/check/Rules.h"
#include "support/Clock.h"

namespace keywardctl::check {

namespace {

constexpr std::uint64_t kSecondsPerDay = 86400;
constexpr std::int32_t kDefaultValidity = 30;
// 9999-12-31 23:59:59 UTC: no certificate can end later.
constexpr std::int64_t kLastSecond = 253402300799;

bool endsInCarriageReturn(const std::string& value) {
    return !value.empty() && value.back() == '\r';
}

std::string lower(const std::string& text) {
    std::string result;
    for (const unsigned char character : text)
        result += static_cast<char>(std::tolower(character));
    return result;
}

/// "90 days" is read as 90.
void checkRest(const CheckedFile& file, const std::string& key, Report& report) {
    const std::string text = file.values.text(key);
    const auto begin = text.find_first_of("0123456789");
    const auto end = text.find_first_not_of("0123456789", begin == std::string::npos ? 0 : begin);
    if (begin == std::string::npos || end == std::string::npos || endsInCarriageReturn(text))
        return;
    report.add(Code::TextAfterNumber, file.at(key),
               quoted(key) + " is read as " + text.substr(0, end) + ": what follows the number in " +
                   quoted(text) + " is ignored",
               "Write the number alone.");
}

/// Runs a reader of the daemon's; what it throws is the finding.
template <typename Read>
void checkReading(const CheckedFile& file, const std::string& key, const std::string& range, Report& report,
                  Read&& read) {
    const std::string value = quoted(file.values.text(key));
    const std::string advice = "The service does not start with it: write a number " + range + ".";
    try {
        if (read())
            checkRest(file, key, report);
        else
            report.add(Code::OutOfRange, file.at(key), quoted(key) + " is not " + range + ": " + value,
                       advice);
    } catch (const std::invalid_argument&) {
        report.add(Code::NotANumber, file.at(key), quoted(key) + " is no number: " + value, advice);
    } catch (const std::out_of_range&) {
        report.add(Code::OutOfRange, file.at(key), quoted(key) + " is not " + range + ": " + value, advice);
    }
}

void checkDailyOffset(const CheckedFile& file, Report& report) {
    static const std::string kKey = "CertDailyExpiryChkTimeOffsetSecs";
    if (file.values.has(kKey))
        checkReading(file, kKey, "from 0 to 86399", report,
                     [&file] { return file.values.number(kKey) < kSecondsPerDay; });
}

void checkCallbackTimeout(const CheckedFile& file, Report& report) {
    static const std::string kKey = "callbackTimeoutSecs";
    if (!file.values.has(kKey))
        return;
    const std::int32_t seconds = file.values.positiveNumber(kKey, 0);
    if (seconds < 1 || seconds > static_cast<std::int32_t>(kSecondsPerDay))
        report.add(Code::IgnoredNumber, file.at(kKey),
                   quoted(kKey) + " is not from 1 to 86400: " + quoted(file.values.text(kKey)) +
                       " is ignored and the callback has no time-out",
                   "Write a number of seconds.");
    else
        checkRest(file, kKey, report);
}

void checkLimit(const CheckedFile& file, const std::string& key, Report& report) {
    if (file.values.has(key))
        checkReading(file, key, "from 0 to 65535", report, [&] {
            static_cast<void>(file.values.shortNumber(key));
            return true;
        });
}

/// A number below `least` is passed over.
void checkDays(const CheckedFile& file, const std::string& key, long long least, std::int32_t instead,
               Report& report) {
    if (!file.values.has(key))
        return;
    const std::string text = file.values.text(key);
    char* end = nullptr;
    const long long days = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || days < least)
        report.add(Code::IgnoredNumber, file.at(key),
                   quoted(key) + " is not at least " + std::to_string(least) + ": " + quoted(text) +
                       " is ignored and " + std::to_string(instead) + " counts",
                   "Write a number of days.");
    else
        checkRest(file, key, report);
}

/// The daemon counts the seconds from now to the end of a certificate in a long. On a 64-bit device all fit.
std::int64_t mostDaysFromNow(std::size_t bytesOfLong) {
    constexpr std::size_t kNarrow = 4;
    return (bytesOfLong <= kNarrow ? INT32_MAX : INT64_MAX) / static_cast<std::int64_t>(kSecondsPerDay);
}

void checkEnd(const CheckedFile& file, const std::string& key, std::int64_t validity, std::int64_t offset,
              std::size_t bytesOfLong, Report& report) {
    const std::string days = std::to_string(validity) + " days";
    const std::int64_t most = mostDaysFromNow(bytesOfLong);
    if (keywarden::Clock::now() + validity * static_cast<std::int64_t>(kSecondsPerDay) > kLastSecond)
        report.add(Code::OutOfRange, file.at(key), quoted(key) + " reaches beyond the year 9999: " + days,
                   "No certificate can be made with it: write fewer days.");
    else if (validity - offset > most)
        report.add(Code::ValidityCut, file.at(key),
                   quoted(key) + " is more than a 32-bit device can count: " + days +
                       ", and the certificate ends at another time",
                   "Write at most " + std::to_string(most + offset) + " days.");
}

void checkPeriod(const CheckedFile& file, const std::string& kind, std::size_t bytesOfLong, Report& report) {
    const std::string validityKey = kind + "Validity";
    const std::string offsetKey = kind + "ValidityOffset";
    checkDays(file, validityKey, 1, kDefaultValidity, report);
    checkDays(file, offsetKey, 0, 0, report);
    const std::int64_t validity = file.values.positiveNumber(validityKey, kDefaultValidity);
    const std::int64_t offset = file.values.positiveNumber(offsetKey, 0);
    if (file.values.has(offsetKey) && offset >= validity)
        report.add(Code::OutOfRange, file.at(offsetKey),
                   quoted(offsetKey) + " is not less than the validity: " + std::to_string(offset) + " of " +
                       std::to_string(validity) + " days",
                   "The service does not start with it: a certificate would end before today.");
    checkEnd(file, validityKey, validity, offset, bytesOfLong, report);
}

void checkUnused(const CheckedFile& file, const std::string& key, const std::string& wanted, Report& report) {
    if (file.values.has(key))
        report.add(Code::WithoutEffect, file.at(key),
                   quoted(key) + " has no effect without " + quoted(wanted),
                   "Add " + quoted(wanted) + " or remove the line.");
}

void checkStoreLimits(const CheckedFile& file, Report& report) {
    if (file.values.isYes("ca"))
        checkLimit(file, "maximumCA", report);
    else
        checkUnused(file, "uniqueCaByCn", "ca yes", report);
    if (!file.values.isYes("trustedClients")) {
        checkUnused(file, "maximumTrustedClients", "trustedClients yes", report);
        checkUnused(file, "uniqueTrustedClientByCn", "trustedClients yes", report);
    } else if (file.values.has("maximumCA")) {
        checkLimit(file, "maximumTrustedClients", report);
    } else if (file.values.has("maximumTrustedClients")) {
        report.add(Code::ClientsLimitIgnored, file.at("maximumTrustedClients"),
                   "'maximumTrustedClients' counts only beside 'maximumCA': the store takes any number of "
                   "certificates",
                   "Add a line 'maximumCA 0' (no limit for CAs) or with another number.");
    }
}

// The switch that all of a server certificate hangs on is easily lost.
void checkServerKeys(const CheckedFile& file, Report& report) {
    if (file.values.isYes("server"))
        return;
    for (const char* key : {"selfSignedGeneration", "selfSignedOnExpiration", "CASignedGeneration",
                            "CASignedOnExpiration", "includeFQDN", "networkInterface.0"})
        if (file.values.text(key) != "no")
            checkUnused(file, key, "server yes", report);
}

void checkAuthorityKeys(const CheckedFile& file, Report& report) {
    if (!file.values.isYes("CASignedGeneration") && !file.values.isYes("CASignedOnExpiration"))
        checkUnused(file, "CAServiceId", "CASignedGeneration yes", report);
}

}  // namespace

void checkSwitches(const ConfigLines& lines, const KeyTable& table, Report& report) {
    static const std::set<std::string> kOff = {"no", "off", "false", "0"};
    for (const ConfigLine& line : lines.lines()) {
        const Key* const key = line.sets ? findKey(table, line.key) : nullptr;
        const bool counts =
            key != nullptr && key->kind == KeyKind::Switch && lines.lineOf(line.key) == line.number;
        const bool isClear =
            line.value.empty() || line.value == "yes" || kOff.find(lower(line.value)) != kOff.end();
        if (counts && !isClear && !endsInCarriageReturn(line.value))
            report.add(Code::NotYes, {lines.file(), line.number},
                       quoted(line.key) + " is off: " + quoted(line.value) + " is not 'yes'",
                       "Only 'yes', in small letters and alone, switches on; write that, or 'no'.");
    }
}

void checkRelativePaths(const ConfigLines& lines, const KeyTable& table, Report& report) {
    for (const ConfigLine& line : lines.lines()) {
        const Key* const key = line.sets ? findKey(table, line.key) : nullptr;
        if (key != nullptr && key->kind == KeyKind::Path && !line.value.empty() && line.value.front() != '/')
            report.add(Code::RelativePath, {lines.file(), line.number},
                       quoted(line.key) + " is relative to '/', the daemon's folder: " + quoted(line.value),
                       "Write the whole path, from '/' on.");
    }
}

void checkServiceValues(const CheckedFile& file, Report& report, std::size_t bytesOfLong) {
    checkSwitches(file.lines, serviceKeys(), report);
    checkRelativePaths(file.lines, serviceKeys(), report);
    checkDailyOffset(file, report);
    checkCallbackTimeout(file, report);
    checkPeriod(file, "selfSigned", bytesOfLong, report);
    checkPeriod(file, "CASigned", bytesOfLong, report);
    checkServerKeys(file, report);
    checkStoreLimits(file, report);
    checkAuthorityKeys(file, report);
}

void checkServiceRefusal(const CheckedService& service, Report& report) {
    try {
        const keywarden::ServiceConfiguration configuration(service.id);
    } catch (const std::exception& error) {
        if (!report.hasErrorIn(service.file.lines.file()))
            report.add(Code::ServiceRefused, service.file.whole(),
                       "the daemon refuses the file: " + std::string(error.what()),
                       "The service does not start before that is mended.");
    }
}

}  // namespace keywardctl::check
