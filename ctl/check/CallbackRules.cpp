
#include "ctl/check/ElfSymbols.h"
#include "ctl/check/Rules.h"
#include "support/FileStatus.h"

namespace keywardctl::check {

namespace {

constexpr const char* kNotStarted = "The service does not start without it.";

bool isRegular(const std::string& path) {
    const auto status = keywarden::statusOfPath(path);
    return status && status->isRegular();
}

void addMissing(const Place& place, const ConfigKey& key, const std::string& path, Report& report) {
    report.add(Code::CallbackMissing, place,
               "the file of " + quoted(key) + " does not exist: " + quoted(path), kNotStarted);
}

void checkScript(const Subject& subject, const CheckedFile& file, Report& report) {
    const ConfigKey key = ServiceKey::CallbackScript;
    const std::string path = file.values.text(key);
    const AccessAnswer answer = subject.identity.access(path, kRun);
    if (answer.access == Access::Unknown)
        report.addNotLookedAt(answer.where, answer.reason);
    else if (answer.access == Access::Missing)
        addMissing(file.at(key), key, path, report);
    else if (subject.identity.isKnown() && (answer.access == Access::Refused || !isRegular(path)))
        report.add(Code::CallbackNotExecutable, file.at(key),
                   "the daemon user " + quoted(subject.user) + " cannot run " + quoted(path) +
                       (answer.where == path ? "" : ": it may not enter " + quoted(answer.where)),
                   "The service does not start: make it executable with 'chmod 0755 " + path +
                       "' and its folders searchable.");
    checkOpenToOthers(file.at(key), path, report);
    if (!file.values.has(ServiceKey::CallbackTimeoutSecs))
        report.add(Code::NoCallbackTimeout, file.at(key),
                   "'callbackScript' has no time-out: a run that does not end holds up the service, and the "
                   "changes of network and time for all services that come after it",
                   "Add a line 'callbackTimeoutSecs 60', or with the seconds that it may take.");
}

void checkSymbols(const Place& place, const std::string& path, const LibraryLook& look, Report& report) {
    for (const std::string symbol : {"create", "destroy"}) {
        if (look.symbols.find(symbol) == look.symbols.end())
            report.add(Code::LibrarySymbols, place,
                       "the library " + quoted(path) + " has no function " + quoted(symbol),
                       "The service does not start: declare it extern \"C\" and export it.");
    }
}

void checkLibrary(const Subject& subject, const CheckedFile& file, Report& report) {
    const ConfigKey key = ServiceKey::CallbackLibrary;
    const std::string path = file.values.text(key);
    const Place place = file.at(key);
    const AccessAnswer answer = subject.identity.access(path, kRead);
    if (answer.access == Access::Missing) {
        addMissing(place, key, path, report);
        return;
    }
    const LibraryLook look = lookAtLibrary(path);
    const bool refused = subject.identity.isKnown() && answer.access == Access::Refused;
    if (answer.access == Access::Unknown || (!look.readable && isRegular(path)))
        report.addNotLookedAt(path, answer.access == Access::Unknown ? answer.reason : look.problem);
    else if (refused || !look.isLibrary)
        report.add(
            Code::LibraryUnusable, place,
            quoted(path) + (refused ? " may not be read by the daemon user " + quoted(subject.user)
                                    : std::string(" is no shared library of this machine")),
            "The service does not start: install a library that was built for this device, mode 0644.");
    else if (!look.hasSymbolTable)
        report.addNotLookedAt(path, "it has no section headers");
    else
        checkSymbols(place, path, look, report);
    checkOpenToOthers(place, path, report);
}

}  // namespace

void checkCallbacks(const Subject& subject, const CheckedService& service, Report& report) {
    const CheckedFile& file = service.file;
    const bool script = file.values.has(ServiceKey::CallbackScript);
    const bool library = file.values.has(ServiceKey::CallbackLibrary);
    if (!script && !library)
        report.add(Code::NoCallback, file.whole(), "neither 'callbackScript' nor 'callbackLibrary' is set",
                   "The service does not start without one of them; a script may do nothing (/bin/true).");
    if (script && library)
        report.add(Code::TwoCallbacks, file.at(ServiceKey::CallbackLibrary),
                   "'callbackLibrary' is never loaded beside 'callbackScript'",
                   "Remove one of the two lines.");
    if (script)
        checkScript(subject, file, report);
    else if (library)
        checkLibrary(subject, file, report);
}

}  // namespace keywardctl::check
