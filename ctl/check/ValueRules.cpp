#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "ctl/check/Rules.h"
#include "support/Clock.h"

namespace keywardctl::check {

using keywarden::BadValue;
using keywarden::KeyKind;

namespace {

constexpr std::uint64_t kSecondsPerDay = 86400;
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
void checkRest(const CheckedFile& file, const ConfigKey& key, Report& report) {
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

std::string rangeOf(const KeyRow& key) {
    if (key.bad == BadValue::Cut)
        return "at least " + std::to_string(key.lowest);
    return "from " + std::to_string(key.lowest) + " to " + std::to_string(key.highest);
}

bool isWithin(const KeyRow& key, std::uint64_t value) {
    return value >= static_cast<std::uint64_t>(key.lowest) &&
           value <= static_cast<std::uint64_t>(key.highest);
}

/// A number with which the service does not start. The daemon's own reader reads it.
void checkRefused(const CheckedFile& file, const KeyRow& key, Report& report) {
    const std::string value = quoted(file.values.text(key));
    const std::string range = rangeOf(key);
    const std::string advice = "The service does not start with it: write a number " + range + ".";
    const auto addOutside = [&] {
        report.add(Code::OutOfRange, file.at(key), quoted(key) + " is not " + range + ": " + value, advice);
    };
    try {
        if (isWithin(key, file.values.number(key)))
            checkRest(file, key, report);
        else
            addOutside();
    } catch (const std::invalid_argument&) {
        report.add(Code::NotANumber, file.at(key), quoted(key) + " is no number: " + value, advice);
    } catch (const std::out_of_range&) {
        addOutside();
    }
}

/// A number that is passed over.
void checkIgnored(const CheckedFile& file, const KeyRow& key, Report& report) {
    const std::string text = file.values.text(key);
    char* end = nullptr;
    const std::int64_t value = std::strtoll(text.c_str(), &end, 10);
    const bool isTooHigh = key.bad == BadValue::Ignored && value > key.highest;
    if (end != text.c_str() && value >= key.lowest && !isTooHigh) {
        checkRest(file, key, report);
        return;
    }
    const std::string instead =
        key.instead.empty() ? std::to_string(key.absent) + " counts" : std::string(key.instead);
    report.add(Code::IgnoredNumber, file.at(key),
               quoted(key) + " is not " + rangeOf(key) + ": " + quoted(text) + " is ignored and " + instead,
               "Write a number of " + std::string(key.unit) + ".");
}

void checkNumber(const CheckedFile& file, const KeyRow& key, Report& report) {
    if (key.kind != KeyKind::Number || !file.values.has(key))
        return;
    if (key.bad == BadValue::Refused)
        checkRefused(file, key, report);
    else
        checkIgnored(file, key, report);
}

/// The daemon counts the seconds from now to the end of a certificate in a long. On a 64-bit device all fit.
std::int64_t mostDaysFromNow(std::size_t bytesOfLong) {
    constexpr std::size_t kNarrow = 4;
    return (bytesOfLong <= kNarrow ? INT32_MAX : INT64_MAX) / static_cast<std::int64_t>(kSecondsPerDay);
}

void checkEnd(const CheckedFile& file, const ConfigKey& key, std::int64_t validity, std::int64_t offset,
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

void checkPeriod(const CheckedFile& file, const ConfigKey& validityKey, const ConfigKey& offsetKey,
                 std::size_t bytesOfLong, Report& report) {
    const std::int64_t validity = file.values.lenientNumber(validityKey);
    const std::int64_t offset = file.values.lenientNumber(offsetKey);
    if (file.values.has(offsetKey) && offset >= validity)
        report.add(Code::OutOfRange, file.at(offsetKey),
                   quoted(offsetKey) + " is not less than the validity: " + std::to_string(offset) + " of " +
                       std::to_string(validity) + " days",
                   "The service does not start with it: a certificate would end before today.");
    checkEnd(file, validityKey, validity, offset, bytesOfLong, report);
}

void checkUnused(const CheckedFile& file, const ConfigKey& key, const ConfigKey& wanted, Report& report) {
    const std::string line = quoted(wanted.name() + " yes");
    if (file.values.has(key))
        report.add(Code::WithoutEffect, file.at(key), quoted(key) + " has no effect without " + line,
                   "Add " + line + " or remove the line.");
}

void checkClientsLimit(const CheckedFile& file, Report& report) {
    if (file.values.has(ServiceKey::MaximumTrustedClients) && !file.values.has(ServiceKey::MaximumCA))
        report.add(Code::ClientsLimitIgnored, file.at(ServiceKey::MaximumTrustedClients),
                   "'maximumTrustedClients' counts only beside 'maximumCA': the store takes any number of "
                   "certificates",
                   "Add a line 'maximumCA 0' (no limit for CAs) or with another number.");
}

void checkStoreKeys(const CheckedFile& file, Report& report) {
    // Without the store this limit still lets the other one count.
    if (!file.values.isYes(ServiceKey::CA))
        checkUnused(file, ServiceKey::UniqueCaByCn, ServiceKey::CA, report);
    if (file.values.isYes(ServiceKey::TrustedClients)) {
        checkClientsLimit(file, report);
        return;
    }
    checkUnused(file, ServiceKey::MaximumTrustedClients, ServiceKey::TrustedClients, report);
    checkUnused(file, ServiceKey::UniqueTrustedClientByCn, ServiceKey::TrustedClients, report);
}

/// The limit of a store that is switched off is not even read.
bool isRead(const CheckedFile& file, const KeyRow& key) {
    if (&key == &rowOf(ServiceKey::MaximumCA))
        return file.values.isYes(ServiceKey::CA);
    if (&key == &rowOf(ServiceKey::MaximumTrustedClients))
        return file.values.isYes(ServiceKey::TrustedClients) && file.values.has(ServiceKey::MaximumCA);
    return true;
}

void checkNumbers(const CheckedFile& file, Report& report) {
    for (const KeyRow& key : keywarden::serviceKeys()) {
        if (isRead(file, key))
            checkNumber(file, key, report);
    }
}

// The switch that all of a server certificate hangs on is easily lost.
void checkServerKeys(const CheckedFile& file, Report& report) {
    if (file.values.isYes(ServiceKey::Server))
        return;
    const std::vector<ConfigKey> keys = {ServiceKey::SelfSignedGeneration, ServiceKey::SelfSignedOnExpiration,
                                         ServiceKey::CASignedGeneration,   ServiceKey::CASignedOnExpiration,
                                         ServiceKey::IncludeFQDN,          {ServiceKey::NetworkInterface, 0}};
    for (const ConfigKey& key : keys) {
        if (file.values.text(key) != "no")
            checkUnused(file, key, ServiceKey::Server, report);
    }
}

void checkAuthorityKeys(const CheckedFile& file, Report& report) {
    if (!file.values.isYes(ServiceKey::CASignedGeneration) &&
        !file.values.isYes(ServiceKey::CASignedOnExpiration))
        checkUnused(file, ServiceKey::CAServiceId, ServiceKey::CASignedGeneration, report);
}

}  // namespace

void checkSwitches(const ConfigLines& lines, const KeyTable& table, Report& report) {
    static const std::set<std::string> kOff = {"no", "off", "false", "0"};
    for (const ConfigLine& line : lines.lines()) {
        const KeyRow* const key = line.sets ? findKey(table, line.key) : nullptr;
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
        const KeyRow* const key = line.sets ? findKey(table, line.key) : nullptr;
        if (key != nullptr && key->kind == KeyKind::Path && !line.value.empty() && line.value.front() != '/')
            report.add(Code::RelativePath, {lines.file(), line.number},
                       quoted(line.key) + " is relative to '/', the daemon's folder: " + quoted(line.value),
                       "Write the whole path, from '/' on.");
    }
}

void checkServiceValues(const CheckedFile& file, Report& report, std::size_t bytesOfLong) {
    checkSwitches(file.lines, keywarden::serviceKeys(), report);
    checkRelativePaths(file.lines, keywarden::serviceKeys(), report);
    checkNumbers(file, report);
    checkPeriod(file, ServiceKey::SelfSignedValidity, ServiceKey::SelfSignedValidityOffset, bytesOfLong,
                report);
    checkPeriod(file, ServiceKey::CASignedValidity, ServiceKey::CASignedValidityOffset, bytesOfLong, report);
    checkServerKeys(file, report);
    checkStoreKeys(file, report);
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
