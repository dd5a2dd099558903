#include "ctl/check/KeyTables.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <numeric>

namespace keywardctl::check {

namespace {

constexpr std::size_t kShortKey = 3;
constexpr std::size_t kNear = 2;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return text;
}

// How many letters have to be changed, added or left out (Levenshtein).
std::size_t distanceBetween(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t line = 0; line < one.size(); ++line) {
        std::size_t diagonal = row[0];
        row[0] = line + 1;
        for (std::size_t column = 0; column < other.size(); ++column) {
            const std::size_t change = diagonal + (one[line] == other[column] ? 0U : 1U);
            diagonal = row[column + 1];
            row[column + 1] = std::min({change, row[column] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string numberedName(const Key& key, const std::string& number) {
    return key.numbered ? key.name + "." + (number.empty() ? "0" : number) : key.name;
}

}  // namespace

const std::vector<std::string>& requiredDaemonKeys() {
    static const std::vector<std::string> keys = {"keywardDirectory",
                                                  "notificationGroup",
                                                  "serviceConfigDirectory",
                                                  "namePipesDirectory",
                                                  "daemonUser",
                                                  "scriptsDirectory",
                                                  "lockFile",
                                                  "pidFile"};
    return keys;
}

const KeyTable& daemonKeys() {
    static const KeyTable keys = {
        {"keywardDirectory", KeyKind::Path},
        {"notificationGroup"},
        {"serviceConfigDirectory", KeyKind::Path},
        {"minDateForGeneratingCert"},
        {"namePipesDirectory", KeyKind::Path},
        {"daemonUser"},
        {"scriptsDirectory", KeyKind::Path},
        {"lockFile", KeyKind::Path},
        {"pidFile", KeyKind::Path},
        {"TimeDriftSleepTime"},
        {"TimeDriftThresholdValue"},
        {"continueOnServiceFailure", KeyKind::Switch},
    };
    return keys;
}

const KeyTable& serviceKeys() {
    constexpr KeyKind kSwitch = KeyKind::Switch;
    constexpr KeyKind kPath = KeyKind::Path;
    static const KeyTable keys = {
        {"name"},
        {"managmentGroup"},
        {"keyGroup"},
        {"callbackScript", kPath},
        {"callbackLibrary", kPath},
        {"callbackTimeoutSecs"},
        {"server", kSwitch},
        {"ca", kSwitch},
        {"trustedClients", kSwitch},
        {"cnfHookFile", kPath},
        {"cnfFile", kPath},
        {"selfSignedGeneration", kSwitch},
        {"selfSignedOnExpiration", kSwitch},
        {"selfSignedValidity"},
        {"selfSignedValidityOffset"},
        {"CASignedGeneration", kSwitch},
        {"CASignedOnExpiration", kSwitch},
        {"CAServiceId"},
        {"CASignedValidity"},
        {"CASignedValidityOffset"},
        {"CertDailyExpiryChkTimeOffsetSecs"},
        {"networkInvalidRevokePKIcert", kSwitch},
        {"opensslEngine", kSwitch},
        {"includeFQDN", kSwitch},
        {"networkInterface", KeyKind::Text, true},
        {"regenerateIfOff", kSwitch, true},
        {"includeIPv4", kSwitch, true},
        {"includeIPv4Auto", kSwitch, true},
        {"includeIPv6", kSwitch, true},
        {"includeIPv6Auto", kSwitch, true},
        {"maximumCA"},
        {"uniqueCaByCn", kSwitch},
        {"maximumTrustedClients"},
        {"uniqueTrustedClientByCn", kSwitch},
    };
    return keys;
}

const KeyTable& settingsKeys() {
    static const KeyTable keys = {
        {"CONFIG_KEY"},
        {"default_bits"},
        {"default_md"},
        {"CN"},
        {"C"},
        {"ST"},
        {"L"},
        {"O"},
        {"OU"},
        {"emailAddress"},
        {"basicConstraints"},
        {"subjectKeyIdentifier"},
        {"extendedKeyUsage"},
        {"keyUsage"},
        {"commonNameScript", KeyKind::Path},
    };
    return keys;
}

std::string interfaceNumberOf(const std::string& name) {
    const auto point = name.rfind('.');
    const std::string number = point == std::string::npos ? std::string() : name.substr(point + 1);
    const bool digits = !number.empty() && std::all_of(number.begin(), number.end(), [](unsigned char digit) {
        return std::isdigit(digit) != 0;
    });
    return digits && (number == "0" || number.front() != '0') ? number : std::string();
}

const Key* findKey(const KeyTable& table, const std::string& name) {
    const std::string number = interfaceNumberOf(name);
    const auto found = std::find_if(table.begin(), table.end(), [&](const Key& key) {
        return key.numbered ? !number.empty() && name == key.name + "." + number : name == key.name;
    });
    return found == table.end() ? nullptr : &*found;
}

std::string nearestKey(const KeyTable& table, const std::string& name) {
    const std::string number = interfaceNumberOf(name);
    std::string nearest;
    // Of a short key every other short one is near.
    std::size_t best = name.size() <= kShortKey ? 1 : kNear + 1;
    for (const Key& key : table) {
        const std::string candidate = numberedName(key, number);
        const std::size_t distance = distanceBetween(lower(name), lower(candidate));
        if (distance < best) {
            best = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

}  // namespace keywardctl::check
