#include <stdexcept>

#include "config/DaemonConfiguration.h"
#include "ctl/check/Rules.h"

namespace keywardctl::check {

namespace {

void checkRequired(const CheckedFile& file, Report& report) {
    for (const KeyRow& key : keywarden::daemonKeys()) {
        if (key.need == keywarden::Need::Required && !file.values.has(key))
            report.add(Code::MissingKey, file.whole(), quoted(key) + " is missing",
                       "The daemon does not start without it.");
    }
}

/// As the daemon reads it. `end` becomes that of the number once there is one.
std::int64_t readNumber(const KeyRow& key, const std::string& text, std::size_t& end) {
    std::size_t read = 0;
    const std::int64_t value = std::stoll(text, &read);
    if (value < key.lowest || value > key.highest)
        throw std::out_of_range(text);
    end = read;
    return value;
}

/// Only a value that the daemon could not read at all, or that no number of seconds can be.
void checkNumber(const CheckedFile& file, const KeyRow& key, Report& report) {
    // Not has(): of a key of the daemon's file even an empty value would be read.
    if (!file.values.isSet(key))
        return;
    const std::string value = file.values.text(key);
    const std::string advice = "The daemon does not start with it.";
    std::size_t end = value.size();
    try {
        if (readNumber(key, value, end) < 0)
            report.add(Code::OutOfRange, file.at(key), quoted(key) + " is negative: " + quoted(value),
                       "Write a number of " + std::string(key.unit) + ".");
    } catch (const std::invalid_argument&) {
        report.add(Code::NotANumber, file.at(key), quoted(key) + " is no number: " + quoted(value), advice);
    } catch (const std::out_of_range&) {
        report.add(Code::OutOfRange, file.at(key), quoted(key) + " is too large: " + quoted(value), advice);
    }
    if (end < value.size())
        report.add(Code::TextAfterNumber, file.at(key),
                   quoted(key) + " is read as " + value.substr(0, end) + ": what follows the number in " +
                       quoted(value) + " is ignored",
                   "Write the number alone.");
}

void checkMonitor(const CheckedFile& file, Report& report) {
    const ConfigKey sleep = DaemonKey::TimeDriftSleepTime;
    const ConfigKey threshold = DaemonKey::TimeDriftThresholdValue;
    const auto isOn = [&file](const ConfigKey& key) { return file.values.lenientNumber(key) > 0; };
    if (isOn(sleep) == isOn(threshold))
        return;
    const ConfigKey& set = isOn(sleep) ? sleep : threshold;
    const ConfigKey& unset = isOn(sleep) ? threshold : sleep;
    report.add(Code::MonitorOff, file.at(set),
               quoted(set) + " has no effect: without " + quoted(unset) +
                   ", or with 0, nobody watches the clock and the network",
               "Set " + quoted(unset) + " too, or neither.");
}

}  // namespace

void checkDaemonValues(const CheckedFile& file, Report& report) {
    checkRequired(file, report);
    checkSwitches(file.lines, keywarden::daemonKeys(), report);
    checkRelativePaths(file.lines, keywarden::daemonKeys(), report);
    for (const KeyRow& key : keywarden::daemonKeys()) {
        if (key.kind == keywarden::KeyKind::Number)
            checkNumber(file, key, report);
    }
    checkMonitor(file, report);
}

bool checkDaemonRefusal(const CheckedFile& file, Report& report) {
    try {
        const keywarden::DaemonConfiguration configuration(file.lines.file());
        return true;
    } catch (const std::exception& error) {
        if (!report.hasErrorIn(file.lines.file()))
            report.add(Code::DaemonRefused, file.whole(),
                       "the daemon refuses the file: " + std::string(error.what()),
                       "The daemon does not start before that is mended.");
        return false;
    }
}

}  // namespace keywardctl::check
