#include <map>
#include <set>

#include "ctl/check/Rules.h"

namespace keywardctl::check {

namespace {

const std::string kInterface = "networkInterface.";

/// The interfaces that the daemon reads: from 0 up to the first number without one.
unsigned countInterfaces(const CheckedFile& file) {
    unsigned count = 0;
    while (file.values.has(kInterface + std::to_string(count)))
        ++count;
    return count;
}

bool isRead(const std::string& number, unsigned count) {
    // Longer than any count: a number beyond it.
    return number.size() <= 9 && std::stoul(number) < count;
}

void checkNumbers(const CheckedFile& file, unsigned count, Report& report) {
    for (const ConfigLine& line : file.lines.lines()) {
        const Key* const key = line.sets ? findKey(serviceKeys(), line.key) : nullptr;
        const std::string number = interfaceNumberOf(line.key);
        if (key == nullptr || !key->numbered || isRead(number, count))
            continue;
        const Place place{file.lines.file(), line.number};
        if (line.key == kInterface + number)
            report.add(Code::InterfaceGap, place,
                       quoted(line.key) + " is never read: there is no " +
                           quoted(kInterface + std::to_string(count)),
                       "Number the interfaces from 0 without a gap.");
        else
            report.add(
                Code::StrayInterfaceKey, place,
                quoted(line.key) + " is never read: there is no interface of this number",
                "Its number is that of a 'networkInterface' line; those are numbered from 0 without a gap.");
    }
}

void checkRepeated(const CheckedFile& file, unsigned count, Report& report) {
    std::map<std::string, std::string> seen;
    for (unsigned number = 0; number < count; ++number) {
        const std::string key = kInterface + std::to_string(number);
        const auto [first, isFirst] = seen.emplace(file.values.text(key), key);
        if (!isFirst)
            report.add(Code::RepeatedInterface, file.at(key),
                       quoted(first->first) + " is listed again; what stands for " + quoted(first->second) +
                           " counts",
                       "List every interface once.");
    }
}

void checkFamilies(const CheckedFile& file, unsigned count, Report& report) {
    for (unsigned number = 0; number < count; ++number) {
        for (const std::string family : {"includeIPv4", "includeIPv6"}) {
            const std::string key = family + "." + std::to_string(number);
            const std::string automatic = family + "Auto." + std::to_string(number);
            if (file.values.isYes(automatic) && !file.values.isYes(key))
                report.add(Code::AutoWithoutFamily, file.at(automatic),
                           quoted(automatic) + " has no effect without " + quoted(key + " yes"),
                           "Add " + quoted(key + " yes") + " or remove the line.");
        }
    }
}

}  // namespace

void checkInterfaces(const CheckedFile& file, Report& report) {
    const unsigned count = countInterfaces(file);
    checkNumbers(file, count, report);
    checkRepeated(file, count, report);
    checkFamilies(file, count, report);
}

}  // namespace keywardctl::check
