#include <stdexcept>

#include "config/DaemonConfiguration.h"
#include "ctl/check/Rules.h"

namespace keywardctl::check {

namespace {

void checkRequired(const CheckedFile& file, Report& report) {
    for (const std::string& key : requiredDaemonKeys()) {
        if (!file.values.has(key))
            report.add(Code::MissingKey, file.whole(), quoted(key) + " is missing",
                       "The daemon does not start without it.");
    }
}

/// Only a value that the daemon could not read at all; `read` is its own way to read one.
template <typename Read>
void checkNumber(const CheckedFile& file, const std::string& key, Report& report, Read&& read) {
    // Not has(): of a key of the daemon's file even an empty value would be read.
    if (file.lines.lineOf(key) == 0)
        return;
    const std::string value = file.values.text(key);
    const std::string advice = "The daemon does not start with it.";
    std::size_t end = value.size();
    try {
        if (read(value, &end) < 0)
            report.add(Code::OutOfRange, file.at(key), quoted(key) + " is negative: " + quoted(value),
                       "Write a number of seconds.");
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

std::int64_t readInt(const std::string& text, std::size_t* end) {
    return std::stoi(text, end);
}

std::int64_t readLong(const std::string& text, std::size_t* end) {
    return std::stoll(text, end);
}

void checkMonitor(const CheckedFile& file, Report& report) {
    const std::string sleep = "TimeDriftSleepTime";
    const std::string threshold = "TimeDriftThresholdValue";
    const auto isOn = [&file](const std::string& key) { return file.values.positiveNumber(key, 0) > 0; };
    if (isOn(sleep) == isOn(threshold))
        return;
    const std::string set = isOn(sleep) ? sleep : threshold;
    const std::string unset = isOn(sleep) ? threshold : sleep;
    report.add(Code::MonitorOff, file.at(set),
               quoted(set) + " has no effect: without " + quoted(unset) +
                   ", or with 0, nobody watches the clock and the network",
               "Set " + quoted(unset) + " too, or neither.");
}

}  // namespace

void checkDaemonValues(const CheckedFile& file, Report& report) {
    checkRequired(file, report);
    checkSwitches(file.lines, daemonKeys(), report);
    checkRelativePaths(file.lines, daemonKeys(), report);
    checkNumber(file, "minDateForGeneratingCert", report, readLong);
    checkNumber(file, "TimeDriftSleepTime", report, readInt);
    checkNumber(file, "TimeDriftThresholdValue", report, readInt);
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
