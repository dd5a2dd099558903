#include <cctype>
#include <stdexcept>

#include "ctl/check/RequestProbe.h"
#include "ctl/check/Rules.h"
#include "x509/KeyTypes.h"

namespace keywardctl::check {

namespace {

constexpr int kSaneRsaKey = 2048;

void checkRsaSize(const CheckedFile& file, int bits, Report& report) {
    const std::string size = quoted(file.values.text(SettingsKey::Bits));
    const KeyRow& row = rowOf(SettingsKey::Bits);
    if (bits < row.lowest || bits > row.highest)
        report.add(Code::KeySize, file.at(SettingsKey::Bits), "no RSA key can be made of " + size + " bits",
                   "Write a number from " + std::to_string(kSaneRsaKey) + " to " +
                       std::to_string(row.highest) + ", or nothing for " + std::to_string(row.absent) + ".");
    else if (bits < kSaneRsaKey)
        report.add(Code::WeakKey, file.at(SettingsKey::Bits), "an RSA key of " + size + " bits is too weak",
                   "Write at least 2048: many programs refuse shorter keys.");
}

// "ONE, TWO or THREE"
std::string keyTypeChoice() {
    const std::vector<std::string> names = keywarden::keyTypeNames();
    std::string choice;
    for (const std::string& name : names)
        choice += (choice.empty() ? "" : &name == &names.back() ? " or " : ", ") + name;
    return choice;
}

void checkKeyType(const CheckedFile& file, const RequestProbe& probe, Report& report) {
    const std::string type = file.values.text(SettingsKey::KeyType);
    const std::string advice = "No certificate or request can be made: write " + keyTypeChoice() + ".";
    if (type.empty())
        report.add(Code::NoKeyType, file.whole(), "'CONFIG_KEY' is missing", advice);
    else if (type == keywarden::KEY_RSA2048)
        checkRsaSize(file, probe.data().public_key_size_bits, report);
    else if (keywarden::findKeyType(type) == nullptr)
        report.add(Code::UnknownKeyType, file.at(SettingsKey::KeyType), quoted(type) + " is no kind of key",
                   advice);
    else if (file.values.has(SettingsKey::Bits))
        report.add(Code::WithoutEffect, file.at(SettingsKey::Bits),
                   "'default_bits' has no effect without 'CONFIG_KEY RSA2048'", "Remove the line.");
}

void checkDigest(const CheckedFile& file, Report& report) {
    std::string digest;
    for (const unsigned char character : file.values.text(SettingsKey::Digest))
        digest += static_cast<char>(std::tolower(character));
    const keywarden::KeyType* const type = keywarden::findKeyType(file.values.text(SettingsKey::KeyType));
    if (!digest.empty() && type != nullptr && type->digest == nullptr)
        report.add(Code::WithoutEffect, file.at(SettingsKey::Digest),
                   "'default_md' has no effect: " + std::string(type->name) + " keys sign without a digest",
                   "Remove the line.");
    else if (!digest.empty() && digest != "sha256" && digest != "sha-256")
        report.add(Code::WithoutEffect, file.at(SettingsKey::Digest),
                   "'default_md' has no effect: the daemon always signs with SHA-256", "Remove the line.");
}

// Values that other programs take, or that documents have, and OpenSSL does not.
std::string adviceFor(const std::string& value) {
    if (value.find("CRLSign") != std::string::npos && value.find("cRLSign") == std::string::npos)
        return "OpenSSL reads 'cRLSign' with this small c only.";
    if (const auto critical = value.find("critical"); critical != std::string::npos && critical != 0)
        return "'critical' comes first: 'critical,...'.";
    if (value.find('@') != std::string::npos)
        return "There are no sections to refer to with '@': write the values themselves.";
    return "x509v3_config(5) describes the values that OpenSSL takes.";
}

void checkExtensions(const CheckedFile& file, const RequestProbe& probe, Report& report) {
    for (const ConfigKey& key : probe.refusedExtensions())
        report.add(
            Code::RefusedExtension, file.at(key),
            quoted(key) + " is left out, OpenSSL does not take its value " + quoted(file.values.text(key)),
            adviceFor(file.values.text(key)));
}

void checkSubject(const CheckedFile& file, const RequestProbe& probe, Report& report) {
    for (const ConfigKey& key : probe.refusedSubject())
        report.add(Code::RefusedSubject, file.at(key),
                   quoted(key) + " is left out of the subject, OpenSSL does not take its value " +
                       quoted(file.values.text(key)),
                   &key.row() == &rowOf(SettingsKey::Country)
                       ? "A country has exactly two letters."
                       : "It is too long, or holds letters that are not allowed there.");
    for (const SettingsKey key : {SettingsKey::Country, SettingsKey::State, SettingsKey::City,
                                  SettingsKey::Company, SettingsKey::Division}) {
        if (!file.values.has(key))
            report.add(Code::EmptySubject, file.whole(),
                       quoted(key) + " is missing: the subject gets it empty",
                       "Write a value; there are programs that refuse an empty one.");
    }
}

void checkCommonName(const Subject& subject, const CheckedFile& file, Report& report) {
    const std::string script = file.values.text(SettingsKey::CommonNameScript);
    const bool named = file.values.has(SettingsKey::CommonName);
    if (named && !script.empty())
        report.add(Code::WithoutEffect, file.at(SettingsKey::CommonNameScript),
                   "'commonNameScript' is never run beside 'CN'", "Remove one of the two lines.");
    if (!named && script.empty())
        report.add(Code::NoCommonName, file.whole(), "neither 'CN' nor 'commonNameScript' is set",
                   "The subject would have no name: write one of them.");
    if (named || script.empty())
        return;
    const AccessAnswer answer = subject.identity.access(script, kRun);
    if (answer.access == Access::Unknown)
        report.addNotLookedAt(answer.where, answer.reason);
    else if (answer.access == Access::Missing ||
             (answer.access == Access::Refused && subject.identity.isKnown()))
        report.add(Code::CommonNameScript, file.at(SettingsKey::CommonNameScript),
                   "the daemon user " + quoted(subject.user) + " cannot run " + quoted(script),
                   "The subject would have no name: put the program there, with mode 0755.");
    checkOpenToOthers(file.at(SettingsKey::CommonNameScript), script, report);
}

}  // namespace

void checkSettingsFile(const Subject& subject, const CheckedService& service, Report& report) {
    const std::string path = service.file.values.text(ServiceKey::CnfFile);
    CheckedFile file;
    try {
        file = CheckedFile(ConfigLines::read(path, Dialect::Settings));
    } catch (const std::runtime_error& error) {
        // Why the daemon cannot read it has been told already; this is about who asks.
        if (subject.identity.access(path, kRead).access == Access::Granted &&
            !report.hasErrorIn(service.file.lines.file()))
            report.addNotLookedAt(path, error.what());
        return;
    }
    checkKeys(file.lines, keywarden::settingsKeys(), report);
    checkRelativePaths(file.lines, keywarden::settingsKeys(), report);
    const RequestProbe probe(file.lines.values());
    checkKeyType(file, probe, report);
    checkDigest(file, report);
    checkExtensions(file, probe, report);
    checkSubject(file, probe, report);
    checkCommonName(subject, file, report);
}

}  // namespace keywardctl::check
