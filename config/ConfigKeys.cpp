#include "config/ConfigKeys.h"

#include <array>
#include <limits>
#include <stdexcept>

namespace keywarden {

namespace {

constexpr std::int64_t kHighestInt = std::numeric_limits<std::int32_t>::max();

struct Range {
    std::int64_t lowest;
    std::int64_t highest;
};
constexpr Range kAnyLong = {std::numeric_limits<std::int64_t>::min(),
                            std::numeric_limits<std::int64_t>::max()};
constexpr Range kAnyInt = {std::numeric_limits<std::int32_t>::min(), kHighestInt};
constexpr Range kFromOne = {1, kHighestInt};
constexpr Range kFromZero = {0, kHighestInt};
constexpr Range kUpToADay = {1, 86400};
constexpr Range kSecondOfADay = {0, 86399};
constexpr Range kCount = {0, std::numeric_limits<std::uint16_t>::max()};
constexpr Range kRsaBits = {512, 16384};

template <typename Key>
constexpr KeyRow text(Key key, std::string_view name, std::string_view help) {
    KeyRow row;
    row.place = static_cast<std::size_t>(key);
    row.name = name;
    row.help = help;
    return row;
}

template <typename Key>
constexpr KeyRow path(Key key, std::string_view name, std::string_view help) {
    KeyRow row = text(key, name, help);
    row.kind = KeyKind::Path;
    return row;
}

template <typename Key>
constexpr KeyRow onOff(Key key, std::string_view name, std::string_view help) {
    KeyRow row = text(key, name, help);
    row.kind = KeyKind::Switch;
    row.bad = BadValue::Off;
    return row;
}

template <typename Key>
constexpr KeyRow number(Key key, std::string_view name, BadValue bad, Range range, std::int64_t absent,
                        std::string_view unit, std::string_view help) {
    KeyRow row = text(key, name, help);
    row.kind = KeyKind::Number;
    row.bad = bad;
    row.lowest = range.lowest;
    row.highest = range.highest;
    row.absent = absent;
    row.unit = unit;
    return row;
}

constexpr KeyRow required(KeyRow row) {
    row.need = Need::Required;
    return row;
}

constexpr KeyRow numbered(KeyRow row) {
    row.numbered = true;
    return row;
}

constexpr KeyRow withoutIt(KeyRow row, std::string_view instead) {
    row.instead = instead;
    return row;
}

template <typename Key>
using Rows = std::array<KeyRow, static_cast<std::size_t>(Key::End)>;

// A row that is left out, or stands in another one's place.
template <std::size_t size>
constexpr bool isInOrder(const std::array<KeyRow, size>& rows) {
    for (std::size_t place = 0; place < size; ++place) {
        if (rows[place].place != place || rows[place].name.empty() || rows[place].help.empty())
            return false;
    }
    return true;
}

constexpr Rows<DaemonKey> kDaemonKeys = {{
    required(path(DaemonKey::KeywardDirectory, "keywardDirectory",
                  "The certificates and keys, one folder a service.")),
    required(text(DaemonKey::NotificationGroup, "notificationGroup",
                  "Its members may write the fifo notification.signal.")),
    required(path(DaemonKey::ServiceConfigDirectory, "serviceConfigDirectory",
                  "The folder of the files of the services.")),
    number(DaemonKey::MinDateForGeneratingCert, "minDateForGeneratingCert", BadValue::Refused, kAnyLong, 0,
           "seconds", "Accepted for files that have it."),
    required(path(DaemonKey::NamePipesDirectory, "namePipesDirectory",
                  "The folder of the pipes and of descriptions that are made anew at every start.")),
    required(text(DaemonKey::DaemonUser, "daemonUser",
                  "The account that the daemon becomes when it was started as root.")),
    required(path(DaemonKey::ScriptsDirectory, "scriptsDirectory",
                  "The folder of network.sh, which tells the daemon the names and addresses of the device.")),
    required(path(DaemonKey::LockFile, "lockFile",
                  "Made at the start; a daemon that finds it does not start (exit status 13).")),
    required(path(DaemonKey::PidFile, "pidFile", "The process id of the daemon, without a line end.")),
    number(DaemonKey::TimeDriftSleepTime, "TimeDriftSleepTime", BadValue::Refused, kAnyInt, 0, "seconds",
           "Every so many seconds the daemon looks whether the clock was set and whether the network has "
           "changed."),
    number(DaemonKey::TimeDriftThresholdValue, "TimeDriftThresholdValue", BadValue::Refused, kAnyInt, 0,
           "seconds",
           "A clock that has gone wrong by more than so many seconds between two looks counts as set."),
    onOff(DaemonKey::ContinueOnServiceFailure, "continueOnServiceFailure",
          "A service that fails in a change of network or time is logged, at ERR and with the same text, and "
          "the other services are told of the change all the same."),
}};
static_assert(isInOrder(kDaemonKeys), "a constant has no row, or a row stands in another's place");

constexpr Rows<ServiceKey> kServiceKeys = {{
    text(ServiceKey::Name, "name", "For people."),
    // So spelled in every file.
    required(text(ServiceKey::ManagementGroup, "managmentGroup",
                  "Its members may give the service commands and read the descriptions of its "
                  "certificates.")),
    text(ServiceKey::KeyGroup, "keyGroup", "Its members may read the private key."),
    path(ServiceKey::CallbackScript, "callbackScript",
         "Run with every event of the service, see keyward-callbacks(7)."),
    path(ServiceKey::CallbackLibrary, "callbackLibrary",
         "A shared object that is told of the events instead."),
    withoutIt(number(ServiceKey::CallbackTimeoutSecs, "callbackTimeoutSecs", BadValue::Ignored, kUpToADay, 0,
                     "seconds",
                     "A run of the script that takes longer is ended, with the processes that it started, "
                     "and logged"),
              "the callback has no time-out"),
    onOff(ServiceKey::Server, "server", "The service has a certificate and a private key of its own."),
    onOff(ServiceKey::CA, "ca", "The service keeps CA certificates that it trusts."),
    onOff(ServiceKey::TrustedClients, "trustedClients",
          "The service keeps certificates of clients that it trusts."),
    path(ServiceKey::CnfHookFile, "cnfHookFile", "A program that prints the settings."),
    path(ServiceKey::CnfFile, "cnfFile", "The settings file, see SETTINGS FILE."),
    onOff(ServiceKey::SelfSignedGeneration, "selfSignedGeneration",
          "The daemon makes a certificate that is signed with its own key"),
    onOff(ServiceKey::SelfSignedOnExpiration, "selfSignedOnExpiration",
          "When a certificate that is not self-signed ends, a self-signed one takes its place."),
    number(ServiceKey::SelfSignedValidity, "selfSignedValidity", BadValue::Cut, kFromOne, 30, "days",
           "How long a self-signed certificate is valid."),
    number(ServiceKey::SelfSignedValidityOffset, "selfSignedValidityOffset", BadValue::Cut, kFromZero, 0,
           "days",
           "How long ago the validity of a self-signed certificate has begun, for clients whose clocks are "
           "slow."),
    onOff(ServiceKey::CASignedGeneration, "CASignedGeneration",
          "The daemon makes a certificate that is signed by another service of the device"),
    onOff(ServiceKey::CASignedOnExpiration, "CASignedOnExpiration",
          "When a certificate that is not self-signed ends, one signed by CAServiceId takes its place"),
    text(ServiceKey::CAServiceId, "CAServiceId", "The identifier of the service that signs."),
    number(ServiceKey::CASignedValidity, "CASignedValidity", BadValue::Cut, kFromOne, 30, "days",
           "How long a certificate signed by CAServiceId is valid."),
    number(ServiceKey::CASignedValidityOffset, "CASignedValidityOffset", BadValue::Cut, kFromZero, 0, "days",
           "How long ago the validity of a certificate signed by CAServiceId has begun, for clients whose "
           "clocks are slow."),
    number(ServiceKey::CertDailyExpiryChkTimeOffsetSecs, "CertDailyExpiryChkTimeOffsetSecs",
           BadValue::Refused, kSecondOfADay, 0, "seconds",
           "The daily check is made so many seconds before midnight UTC, and counts a certificate as ended "
           "so many seconds before its end"),
    onOff(ServiceKey::NetworkInvalidRevokePKIcert, "networkInvalidRevokePKIcert",
          "A certificate of an external PKI that does not fit the network any more is replaced"),
    onOff(ServiceKey::OpensslEngine, "opensslEngine", "Accepted for files that have it; it has no effect."),
    onOff(ServiceKey::IncludeFQDN, "includeFQDN", "The device's names go into the certificate."),
    numbered(text(ServiceKey::NetworkInterface, "networkInterface",
                  "An interface whose addresses go into the certificate.")),
    numbered(onOff(ServiceKey::RegenerateIfOff, "regenerateIfOff",
                   "Accepted for files that have it; it has no effect.")),
    numbered(
        onOff(ServiceKey::IncludeIPv4, "includeIPv4", "The IPv4 addresses of interface N are included.")),
    numbered(onOff(ServiceKey::IncludeIPv4Auto, "includeIPv4Auto",
                   "IPv4 addresses of interface N that come from DHCP are included, too.")),
    numbered(
        onOff(ServiceKey::IncludeIPv6, "includeIPv6", "The IPv6 addresses of interface N are included.")),
    numbered(onOff(ServiceKey::IncludeIPv6Auto, "includeIPv6Auto",
                   "IPv6 addresses of interface N that come from router advertisements or DHCP are "
                   "included, too.")),
    number(ServiceKey::MaximumCA, "maximumCA", BadValue::Refused, kCount, 0, "certificates",
           "How many CA certificates at most"),
    onOff(ServiceKey::UniqueCaByCn, "uniqueCaByCn", "One CA certificate for each subject name"),
    number(ServiceKey::MaximumTrustedClients, "maximumTrustedClients", BadValue::Refused, kCount, 0,
           "certificates", "How many certificates of clients at most"),
    onOff(ServiceKey::UniqueTrustedClientByCn, "uniqueTrustedClientByCn",
          "One certificate of a client for each subject name"),
}};
static_assert(isInOrder(kServiceKeys), "a constant has no row, or a row stands in another's place");

constexpr std::string_view kSubject = "Country (two letters), state, city, organisation and unit.";
constexpr std::string_view kExtension = "Extensions, as values of x509v3_config(5).";

constexpr Rows<SettingsKey> kSettingsKeys = {{
    required(text(SettingsKey::KeyType, "CONFIG_KEY", "PRIME256V1, SECP384R1, ED25519 or RSA2048.")),
    number(SettingsKey::Bits, "default_bits", BadValue::Taken, kRsaBits, 2048, "bits",
           "The size of an RSA key"),
    text(SettingsKey::Digest, "default_md", "Accepted for files that have it"),
    text(SettingsKey::CommonName, "CN", "The common name."),
    text(SettingsKey::Country, "C", kSubject),
    text(SettingsKey::State, "ST", kSubject),
    text(SettingsKey::City, "L", kSubject),
    text(SettingsKey::Company, "O", kSubject),
    text(SettingsKey::Division, "OU", kSubject),
    text(SettingsKey::EmailAddress, "emailAddress", "Left out when it is not set."),
    text(SettingsKey::BasicConstraints, "basicConstraints", kExtension),
    text(SettingsKey::SubjectKeyIdentifier, "subjectKeyIdentifier", kExtension),
    text(SettingsKey::ExtendedKeyUsage, "extendedKeyUsage", kExtension),
    text(SettingsKey::KeyUsage, "keyUsage", kExtension),
    path(SettingsKey::CommonNameScript, "commonNameScript",
         "A program that prints the common name, run when there is no CN."),
}};
static_assert(isInOrder(kSettingsKeys), "a constant has no row, or a row stands in another's place");

}  // namespace

KeyTable daemonKeys() {
    return {kDaemonKeys.data(), kDaemonKeys.size()};
}

KeyTable serviceKeys() {
    return {kServiceKeys.data(), kServiceKeys.size()};
}

KeyTable settingsKeys() {
    return {kSettingsKeys.data(), kSettingsKeys.size()};
}

const KeyRow& rowOf(DaemonKey key) {
    return kDaemonKeys.at(static_cast<std::size_t>(key));
}

const KeyRow& rowOf(ServiceKey key) {
    return kServiceKeys.at(static_cast<std::size_t>(key));
}

const KeyRow& rowOf(SettingsKey key) {
    return kSettingsKeys.at(static_cast<std::size_t>(key));
}

ConfigKey::ConfigKey(const KeyRow& row) : row_(&row), name_(row.name) {
    if (row.numbered)
        throw std::logic_error("'" + name_ + "' is asked for without a number");
}

ConfigKey::ConfigKey(const KeyRow& row, unsigned number)
    : row_(&row), name_(std::string(row.name) + "." + std::to_string(number)) {
    if (!row.numbered)
        throw std::logic_error("'" + name_ + "' is asked for, a key without numbers");
}

}  // namespace keywarden
