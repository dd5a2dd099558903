#pragma once

#include <string_view>
#include <vector>

namespace keywardctl::check {

enum class Severity {
    Error,    ///< the daemon refuses it, or what it says will not work
    Warning,  ///< probably not what was meant
    Note,     ///< what could not be looked at
};

/// Everything that can be found. The names of the codes (codeTable) are what scripts rely on: none is renamed
/// and none changes its severity.
enum class Code {
    // The lines of a file.
    UnknownKey,
    RepeatedKey,
    TabForSpace,
    EqualsSign,
    KeyWithoutValue,
    EmptyKey,
    HashInValue,
    CarriageReturn,
    // Values.
    NotYes,
    NotANumber,
    OutOfRange,
    IgnoredNumber,
    ValidityCut,
    TextAfterNumber,
    ClientsLimitIgnored,
    WithoutEffect,
    MissingKey,
    RelativePath,
    MonitorOff,
    ServiceRefused,
    DaemonRefused,
    // The files themselves.
    NoDaemonFile,
    NoService,
    UnknownService,
    IgnoredFile,
    ServiceUnreadable,
    // Accounts.
    NoDaemonUser,
    NoUserGroup,
    NoGroup,
    NotMember,
    GroupNotTaken,
    UnmeantGroup,
    // Folders and the lock.
    FolderMissing,
    LockFolder,
    PidFolder,
    PipesFolder,
    StoreFolder,
    ServicesFolder,
    ReadyFolder,
    InsidePipes,
    NetworkScript,
    OpenToOthers,
    StaleLock,
    // Callbacks.
    NoCallback,
    TwoCallbacks,
    CallbackMissing,
    CallbackNotExecutable,
    LibraryUnusable,
    LibrarySymbols,
    NoCallbackTimeout,
    // Request settings.
    NoRequestSettings,
    TwoRequestSettings,
    SettingsUnreadable,
    HookUnusable,
    NoKeyType,
    UnknownKeyType,
    KeySize,
    WeakKey,
    RefusedExtension,
    RefusedSubject,
    EmptySubject,
    NoCommonName,
    CommonNameScript,
    // A certificate authority of the device.
    NoAuthority,
    OwnAuthority,
    UnknownAuthority,
    AuthorityWithoutServer,
    AuthorityNoCa,
    AuthorityOrder,
    // The network.
    InterfaceGap,
    StrayInterfaceKey,
    RepeatedInterface,
    AutoWithoutFamily,
    UnknownInterface,
    NoDeviceNames,
    // Stored files.
    KeyReadable,
    WrongMode,
    WrongOwner,
    WrongGroup,
    ActiveMalformed,
    ActiveWithoutFiles,
    NotInForce,
    CertificateUnreadable,
    KeyUnreadable,
    KeyMismatch,
    CertificateEnded,
    CertificateNotYetValid,
    StoredCertificate,
    TrustedCertificateEnded,
    ClockUnset,
    // The check itself.
    NotLookedAt,
};

struct CodeEntry {
    Code code;
    std::string_view name;
    Severity severity;
};

/// In the order of the enumeration.
[[nodiscard]] const std::vector<CodeEntry>& codeTable();
[[nodiscard]] const CodeEntry& entryOf(Code code);
[[nodiscard]] std::string_view nameOf(Severity severity);

}  // namespace keywardctl::check
