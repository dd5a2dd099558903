#include <map>
#include <set>

#include "ctl/check/Rules.h"

namespace keywardctl::check {

namespace {

ConfigKey interfaceKey(unsigned number) {
    return {ServiceKey::NetworkInterface, number};
}

/// The interfaces that the daemon reads: from 0 up to the first number without one.
unsigned countInterfaces(const CheckedFile& file) {
    unsigned count = 0;
    while (file.values.has(interfaceKey(count)))
        ++count;
    return count;
}

bool isRead(const std::string& number, unsigned count) {
    // Longer than any count: a number beyond it.
    return number.size() <= 9 && std::stoul(number) < count;
}

void checkNumbers(const CheckedFile& file, unsigned count, Report& report) {
    for (const ConfigLine& line : file.lines.lines()) {
        const KeyRow* const key = line.sets ? findKey(keywarden::serviceKeys(), line.key) : nullptr;
        const std::string number = interfaceNumberOf(line.key);
        if (key == nullptr || !key->numbered || isRead(number, count))
            continue;
        const Place place{file.lines.file(), line.number};
        if (key == &rowOf(ServiceKey::NetworkInterface))
            report.add(Code::InterfaceGap, place,
                       quoted(line.key) + " is never read: there is no " + quoted(interfaceKey(count)),
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
        const ConfigKey key = interfaceKey(number);
        const auto [first, isFirst] = seen.emplace(file.values.text(key), key.name());
        if (!isFirst)
            report.add(Code::RepeatedInterface, file.at(key),
                       quoted(first->first) + " is listed again; what stands for " + quoted(first->second) +
                           " counts",
                       "List every interface once.");
    }
}

void checkFamilies(const CheckedFile& file, unsigned count, Report& report) {
    for (unsigned number = 0; number < count; ++number) {
        for (const auto& [key, automatic] :
             {std::pair<ConfigKey, ConfigKey>{{ServiceKey::IncludeIPv4, number},
                                              {ServiceKey::IncludeIPv4Auto, number}},
              std::pair<ConfigKey, ConfigKey>{{ServiceKey::IncludeIPv6, number},
                                              {ServiceKey::IncludeIPv6Auto, number}}}) {
            if (file.values.isYes(automatic) && !file.values.isYes(key))
                report.add(Code::AutoWithoutFamily, file.at(automatic),
                           quoted(automatic) + " has no effect without " + quoted(key.name() + " yes"),
                           "Add " + quoted(key.name() + " yes") + " or remove the line.");
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
