
#include "ctl/check/Rules.h"
#include "support/FileStatus.h"

namespace keywardctl::check {

namespace {

constexpr const char* kNotStarted = "The service does not start: ";

// Also when the other source counts, the daemon insists that both can be read.
void checkReadable(const Subject& subject, const CheckedFile& file, const ConfigKey& key, Code code,
                   unsigned wanted, Report& report) {
    const std::string path = file.values.text(key);
    if (path.empty())
        return;
    const AccessAnswer answer = subject.identity.access(path, wanted);
    const auto status = keywarden::statusOfPath(path);
    const bool isFile = status && status->isRegular();
    if (answer.access == Access::Unknown)
        report.addNotLookedAt(answer.where, answer.reason);
    else if (answer.access == Access::Missing)
        report.add(code, file.at(key), "the file of " + quoted(key) + " does not exist: " + quoted(path),
                   std::string(kNotStarted) + "make the file or correct its path.");
    else if (!isFile)
        report.add(code, file.at(key), quoted(path) + " is no regular file",
                   std::string(kNotStarted) + "put a file in its place.");
    else if (answer.access == Access::Refused && subject.identity.isKnown())
        report.add(code, file.at(key),
                   "the daemon user " + quoted(subject.user) + " cannot use " + quoted(answer.where),
                   std::string(kNotStarted) + "open it with chmod or chown.");
}

}  // namespace

void checkRequestSettings(const Subject& subject, const CheckedService& service, Report& report) {
    const CheckedFile& file = service.file;
    const bool settings = file.values.has(ServiceKey::CnfFile);
    const bool hook = file.values.has(ServiceKey::CnfHookFile);
    if (!settings && !hook)
        report.add(Code::NoRequestSettings, file.whole(), "neither 'cnfFile' nor 'cnfHookFile' is set",
                   "The service does not start without one of them, not even without 'server yes'.");
    if (settings && hook)
        report.add(Code::TwoRequestSettings, file.at(ServiceKey::CnfHookFile),
                   "'cnfHookFile' is never run beside 'cnfFile'", "Remove one of the two lines.");
    if (!file.values.isYes(ServiceKey::Server))
        return;
    checkReadable(subject, file, ServiceKey::CnfFile, Code::SettingsUnreadable, kRead, report);
    checkReadable(subject, file, ServiceKey::CnfHookFile, Code::HookUnusable, kRead | kRun, report);
    checkOpenToOthers(file.at(ServiceKey::CnfHookFile), file.values.text(ServiceKey::CnfHookFile), report);
    if (settings)
        checkSettingsFile(subject, service, report);
}

}  // namespace keywardctl::check
