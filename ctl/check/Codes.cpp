#include "ctl/check/Codes.h"

#include <cstddef>

namespace keywardctl::check {

const std::vector<CodeEntry>& codeTable() {
    static const std::vector<CodeEntry> table = {
        {Code::UnknownKey, "unknown-key", Severity::Error},
        {Code::RepeatedKey, "repeated-key", Severity::Warning},
        {Code::TabForSpace, "tab-for-space", Severity::Error},
        {Code::EqualsSign, "equals-sign", Severity::Error},
        {Code::KeyWithoutValue, "key-without-value", Severity::Warning},
        {Code::EmptyKey, "empty-key", Severity::Error},
        {Code::HashInValue, "hash-in-value", Severity::Warning},
        {Code::CarriageReturn, "carriage-return", Severity::Error},
        {Code::NotYes, "not-yes", Severity::Error},
        {Code::NotANumber, "not-a-number", Severity::Error},
        {Code::OutOfRange, "out-of-range", Severity::Error},
        {Code::IgnoredNumber, "ignored-number", Severity::Error},
        {Code::ValidityCut, "validity-cut", Severity::Warning},
        {Code::TextAfterNumber, "text-after-number", Severity::Warning},
        {Code::ClientsLimitIgnored, "clients-limit-ignored", Severity::Error},
        {Code::WithoutEffect, "without-effect", Severity::Warning},
        {Code::MissingKey, "missing-key", Severity::Error},
        {Code::RelativePath, "relative-path", Severity::Warning},
        {Code::MonitorOff, "monitor-off", Severity::Warning},
        {Code::ServiceRefused, "service-refused", Severity::Error},
        {Code::DaemonRefused, "daemon-refused", Severity::Error},
        {Code::NoDaemonFile, "no-daemon-file", Severity::Error},
        {Code::NoService, "no-service", Severity::Error},
        {Code::UnknownService, "unknown-service", Severity::Error},
        {Code::IgnoredFile, "ignored-file", Severity::Warning},
        {Code::ServiceUnreadable, "service-unreadable", Severity::Error},
        {Code::NoDaemonUser, "no-daemon-user", Severity::Error},
        {Code::NoUserGroup, "no-user-group", Severity::Error},
        {Code::NoGroup, "no-group", Severity::Error},
        {Code::NotMember, "not-member", Severity::Error},
        {Code::GroupNotTaken, "group-not-taken", Severity::Error},
        {Code::UnmeantGroup, "unmeant-group", Severity::Warning},
        {Code::FolderMissing, "folder-missing", Severity::Error},
        {Code::LockFolder, "lock-folder", Severity::Error},
        {Code::PidFolder, "pid-folder", Severity::Warning},
        {Code::PipesFolder, "pipes-folder", Severity::Warning},
        {Code::StoreFolder, "store-folder", Severity::Error},
        {Code::ServicesFolder, "services-folder", Severity::Error},
        {Code::ReadyFolder, "ready-folder", Severity::Error},
        {Code::InsidePipes, "inside-pipes", Severity::Error},
        {Code::NetworkScript, "network-script", Severity::Error},
        {Code::OpenToOthers, "open-to-others", Severity::Warning},
        {Code::StaleLock, "stale-lock", Severity::Error},
        {Code::NoCallback, "no-callback", Severity::Error},
        {Code::TwoCallbacks, "two-callbacks", Severity::Warning},
        {Code::CallbackMissing, "callback-missing", Severity::Error},
        {Code::CallbackNotExecutable, "callback-not-executable", Severity::Error},
        {Code::LibraryUnusable, "library-unusable", Severity::Error},
        {Code::LibrarySymbols, "library-symbols", Severity::Error},
        {Code::NoCallbackTimeout, "no-callback-timeout", Severity::Warning},
        {Code::NoRequestSettings, "no-request-settings", Severity::Error},
        {Code::TwoRequestSettings, "two-request-settings", Severity::Warning},
        {Code::SettingsUnreadable, "settings-unreadable", Severity::Error},
        {Code::HookUnusable, "hook-unusable", Severity::Error},
        {Code::NoKeyType, "no-key-type", Severity::Error},
        {Code::UnknownKeyType, "unknown-key-type", Severity::Error},
        {Code::KeySize, "key-size", Severity::Error},
        {Code::WeakKey, "weak-key", Severity::Warning},
        {Code::RefusedExtension, "refused-extension", Severity::Error},
        {Code::RefusedSubject, "refused-subject", Severity::Error},
        {Code::EmptySubject, "empty-subject", Severity::Warning},
        {Code::NoCommonName, "no-common-name", Severity::Error},
        {Code::CommonNameScript, "common-name-script", Severity::Error},
        {Code::NoAuthority, "no-authority", Severity::Error},
        {Code::OwnAuthority, "own-authority", Severity::Error},
        {Code::UnknownAuthority, "unknown-authority", Severity::Error},
        {Code::AuthorityWithoutServer, "authority-without-server", Severity::Error},
        {Code::AuthorityNoCa, "authority-no-ca", Severity::Error},
        {Code::AuthorityOrder, "authority-order", Severity::Warning},
        {Code::InterfaceGap, "interface-gap", Severity::Error},
        {Code::StrayInterfaceKey, "stray-interface-key", Severity::Error},
        {Code::RepeatedInterface, "repeated-interface", Severity::Warning},
        {Code::AutoWithoutFamily, "auto-without-family", Severity::Warning},
        {Code::UnknownInterface, "unknown-interface", Severity::Warning},
        {Code::NoDeviceNames, "no-device-names", Severity::Warning},
        {Code::KeyReadable, "key-readable", Severity::Error},
        {Code::WrongMode, "wrong-mode", Severity::Warning},
        {Code::WrongOwner, "wrong-owner", Severity::Error},
        {Code::WrongGroup, "wrong-group", Severity::Warning},
        {Code::ActiveMalformed, "active-malformed", Severity::Error},
        {Code::ActiveWithoutFiles, "active-without-files", Severity::Error},
        {Code::NotInForce, "not-in-force", Severity::Warning},
        {Code::CertificateUnreadable, "certificate-unreadable", Severity::Error},
        {Code::KeyUnreadable, "key-unreadable", Severity::Error},
        {Code::KeyMismatch, "key-mismatch", Severity::Error},
        {Code::CertificateEnded, "certificate-ended", Severity::Error},
        {Code::CertificateNotYetValid, "certificate-not-yet-valid", Severity::Error},
        {Code::StoredCertificate, "stored-certificate", Severity::Error},
        {Code::TrustedCertificateEnded, "trusted-certificate-ended", Severity::Warning},
        {Code::ClockUnset, "clock-unset", Severity::Error},
        {Code::NotLookedAt, "not-looked-at", Severity::Note},
    };
    return table;
}

const CodeEntry& entryOf(Code code) {
    return codeTable().at(static_cast<std::size_t>(code));
}

std::string_view nameOf(Severity severity) {
    switch (severity) {
        case Severity::Error:
            return "error";
        case Severity::Warning:
            return "warning";
        default:
            return "note";
    }
}

}  // namespace keywardctl::check
