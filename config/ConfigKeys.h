#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Every key of the daemon's, the services' and the settings' files, one table a file. A reader asks for a key
// by its constant, so that none can ask for one that has no row; the tests let every row arrive in its
// reader, in the operator's check and in the manual.
namespace keywarden {

// The constants stand in the order of the rows; End is no key.
enum class DaemonKey {
    KeywardDirectory,
    NotificationGroup,
    ServiceConfigDirectory,
    MinDateForGeneratingCert,
    NamePipesDirectory,
    DaemonUser,
    ScriptsDirectory,
    LockFile,
    PidFile,
    TimeDriftSleepTime,
    TimeDriftThresholdValue,
    ContinueOnServiceFailure,
    End,
};

enum class ServiceKey {
    Name,
    ManagementGroup,
    KeyGroup,
    CallbackScript,
    CallbackLibrary,
    CallbackTimeoutSecs,
    Server,
    CA,
    TrustedClients,
    CnfHookFile,
    CnfFile,
    SelfSignedGeneration,
    SelfSignedOnExpiration,
    SelfSignedValidity,
    SelfSignedValidityOffset,
    CASignedGeneration,
    CASignedOnExpiration,
    CAServiceId,
    CASignedValidity,
    CASignedValidityOffset,
    CertDailyExpiryChkTimeOffsetSecs,
    NetworkInvalidRevokePKIcert,
    OpensslEngine,
    IncludeFQDN,
    NetworkInterface,
    RegenerateIfOff,
    IncludeIPv4,
    IncludeIPv4Auto,
    IncludeIPv6,
    IncludeIPv6Auto,
    MaximumCA,
    UniqueCaByCn,
    MaximumTrustedClients,
    UniqueTrustedClientByCn,
    End,
};

enum class SettingsKey {
    KeyType,
    Bits,
    Digest,
    CommonName,
    Country,
    State,
    City,
    Company,
    Division,
    EmailAddress,
    BasicConstraints,
    SubjectKeyIdentifier,
    ExtendedKeyUsage,
    KeyUsage,
    CommonNameScript,
    End,
};

enum class KeyKind { Text, Switch, Path, Number };

enum class Need {
    Optional,  ///< or needed with some other key only
    Required,  ///< nothing starts, or nothing is made, without it
};

/// What becomes of a value that makes no sense.
enum class BadValue {
    Taken,    ///< every text is taken; whether it can be used shows when it is
    Off,      ///< a switch is on with exactly "yes"
    Refused,  ///< who reads the file does not start
    Ignored,  ///< counts as if the key were not there
    Cut,      ///< so does one that is too low or no number; of one that is too high the highest counts
};

struct KeyRow {
    std::size_t place = 0;  ///< in its table
    std::string_view name;
    KeyKind kind = KeyKind::Text;
    Need need = Need::Optional;
    BadValue bad = BadValue::Taken;
    bool numbered = false;  ///< the name is followed by a point and the number of an interface

    // Of numbers; without its key, a text or path is empty and a switch is off.
    std::int64_t lowest = 0;
    std::int64_t highest = 0;
    std::int64_t absent = 0;   ///< what counts without the key
    std::string_view instead;  ///< the same in words, where the number does not tell it
    std::string_view unit;

    std::string_view help;  ///< one line; an item of the manual begins with it
};

/// The rows of one file, in their order.
class KeyTable {
  public:
    constexpr KeyTable(const KeyRow* rows, std::size_t size) : rows_(rows), size_(size) {}

    [[nodiscard]] constexpr const KeyRow* begin() const { return rows_; }
    [[nodiscard]] constexpr const KeyRow* end() const { return rows_ + size_; }

  private:
    const KeyRow* rows_;
    std::size_t size_;
};

[[nodiscard]] KeyTable daemonKeys();
[[nodiscard]] KeyTable serviceKeys();
[[nodiscard]] KeyTable settingsKeys();

[[nodiscard]] const KeyRow& rowOf(DaemonKey key);
[[nodiscard]] const KeyRow& rowOf(ServiceKey key);
[[nodiscard]] const KeyRow& rowOf(SettingsKey key);

/// What a reader asks a file for: a key, and of a numbered one the number. Made of no text, but of a constant
/// or a row wherever one is wanted.
class ConfigKey {
  public:
    ConfigKey(DaemonKey key) : ConfigKey(rowOf(key)) {}
    ConfigKey(ServiceKey key) : ConfigKey(rowOf(key)) {}
    ConfigKey(ServiceKey key, unsigned number) : ConfigKey(rowOf(key), number) {}
    ConfigKey(SettingsKey key) : ConfigKey(rowOf(key)) {}
    /// Throw std::logic_error for a numbered key without its number, and for the number of another one.
    ConfigKey(const KeyRow& row);
    ConfigKey(const KeyRow& row, unsigned number);

    [[nodiscard]] const KeyRow& row() const { return *row_; }
    /// As it stands in the file.
    [[nodiscard]] const std::string& name() const { return name_; }

  private:
    const KeyRow* row_;
    std::string name_;
};

}  // namespace keywarden
