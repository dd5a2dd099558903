#include <cctype>
#include <stdexcept>

#include "ctl/check/RequestProbe.h"
#include "ctl/check/Rules.h"
#include "x509/KeyTypes.h"

namespace keywardctl::check {

namespace {

constexpr int kShortestRsaKey = 512;
constexpr int kSaneRsaKey = 2048;
constexpr int kLongestRsaKey = 16384;

void checkRsaSize(const CheckedFile& file, int bits, Report& report) {
    const std::string size = quoted(file.values.text("default_bits"));
    if (bits < kShortestRsaKey || bits > kLongestRsaKey)
        report.add(Code::KeySize, file.at("default_bits"), "no RSA key can be made of " + size + " bits",
                   "Write a number from 2048 to 16384, or nothing for 2048.");
    else if (bits < kSaneRsaKey)
        report.add(Code::WeakKey, file.at("default_bits"), "an RSA key of " + size + " bits is too weak",
                   "Write at least 2048: many programs refuse shorter keys.");
}

void checkKeyType(const CheckedFile& file, const RequestProbe& probe, Report& report) {
    const std::string type = file.values.text("CONFIG_KEY");
    const std::string advice = "No certificate or request can be made: write PRIME256V1 or RSA2048.";
    if (type.empty())
        report.add(Code::NoKeyType, file.whole(), "'CONFIG_KEY' is missing", advice);
    else if (type == keywarden::KEY_RSA2048)
        checkRsaSize(file, probe.data().public_key_size_bits, report);
    else if (type != keywarden::KEY_PRIME256V1)
        report.add(Code::UnknownKeyType, file.at("CONFIG_KEY"), quoted(type) + " is no kind of key", advice);
    else if (file.values.has("default_bits"))
        report.add(Code::WithoutEffect, file.at("default_bits"),
                   "'default_bits' has no effect without 'CONFIG_KEY RSA2048'", "Remove the line.");
}

void checkDigest(const CheckedFile& file, Report& report) {
    std::string digest;
    for (const unsigned char character : file.values.text("default_md"))
        digest += static_cast<char>(std::tolower(character));
    if (!digest.empty() && digest != "sha256" && digest != "sha-256")
        report.add(Code::WithoutEffect, file.at("default_md"),
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
    for (const std::string& key : probe.refusedExtensions())
        report.add(
            Code::RefusedExtension, file.at(key),
            quoted(key) + " is left out, OpenSSL does not take its value " + quoted(file.values.text(key)),
            adviceFor(file.values.text(key)));
}

void checkSubject(const CheckedFile& file, const RequestProbe& probe, Report& report) {
    for (const std::string& key : probe.refusedSubject())
        report.add(Code::RefusedSubject, file.at(key),
                   quoted(key) + " is left out of the subject, OpenSSL does not take its value " +
                       quoted(file.values.text(key)),
                   key == "C" ? "A country has exactly two letters."
                              : "It is too long, or holds letters that are not allowed there.");
    for (const std::string key : {"C", "ST", "L", "O", "OU"}) {
        if (!file.values.has(key))
            report.add(Code::EmptySubject, file.whole(),
                       quoted(key) + " is missing: the subject gets it empty",
                       "Write a value; there are programs that refuse an empty one.");
    }
}

void checkCommonName(const Subject& subject, const CheckedFile& file, Report& report) {
    const std::string script = file.values.text("commonNameScript");
    const bool named = file.values.has("CN");
    if (named && !script.empty())
        report.add(Code::WithoutEffect, file.at("commonNameScript"),
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
        report.add(Code::CommonNameScript, file.at("commonNameScript"),
                   "the daemon user " + quoted(subject.user) + " cannot run " + quoted(script),
                   "The subject would have no name: put the program there, with mode 0755.");
    checkOpenToOthers(file.at("commonNameScript"), script, report);
}

}  // namespace

void checkSettingsFile(const Subject& subject, const CheckedService& service, Report& report) {
    const std::string path = service.file.values.text("cnfFile");
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
    checkKeys(file.lines, settingsKeys(), report);
    checkRelativePaths(file.lines, settingsKeys(), report);
    const RequestProbe probe(file.lines.values());
    checkKeyType(file, probe, report);
    checkDigest(file, report);
    checkExtensions(file, probe, report);
    checkSubject(file, probe, report);
    checkCommonName(subject, file, report);
}

}  // namespace keywardctl::check
