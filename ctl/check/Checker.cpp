#include "ctl/check/Checker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

#include "config/ServiceConfiguration.h"
#include "ctl/check/Rules.h"
#include "ctl/check/Subject.h"
#include "support/ConfigurationPath.h"

namespace keywardctl::check {

namespace {

/// False when there is nothing to go on with.
bool readDaemonFile(Subject& subject, Report& report) {
    const std::string path = keywarden::daemonConfigurationPath();
    try {
        subject.daemon = CheckedFile(ConfigLines::read(path, Dialect::Configuration));
    } catch (const std::runtime_error& error) {
        if (::access(path.c_str(), R_OK) != 0 && errno == EACCES)
            report.addNotLookedAt(path, std::strerror(EACCES));
        else
            report.add(Code::NoDaemonFile, {path}, error.what(),
                       "The daemon does not start without this file.");
        return false;
    }
    subject.user = subject.daemon.values.text(DaemonKey::DaemonUser);
    subject.identity = Identity(subject.user);
    return true;
}

bool listServices(Subject& subject, Report& report) {
    try {
        subject.allServices = keywarden::ServiceConfiguration::getServiceList();
        std::sort(subject.allServices.begin(), subject.allServices.end());
        return true;
    } catch (const std::runtime_error& error) {
        report.addNotLookedAt(subject.daemon.values.text(DaemonKey::ServiceConfigDirectory), error.what());
        return false;
    }
}

bool isListed(const Subject& subject, const std::string& id) {
    return std::find(subject.allServices.begin(), subject.allServices.end(), id) != subject.allServices.end();
}

void readService(Subject& subject, const std::string& id, Report& report) {
    const std::string path =
        subject.daemon.values.text(DaemonKey::ServiceConfigDirectory) + "/" + id + ".conf";
    if (!isListed(subject, id)) {
        report.add(Code::UnknownService, {path}, "there is no service " + quoted(id),
                   "A service is named like its file, without '.conf'.");
        return;
    }
    const AccessAnswer answer = subject.identity.access(path, kRead);
    if (subject.identity.isKnown() && answer.access == Access::Refused)
        report.add(Code::ServiceUnreadable, {path},
                   "the daemon user " + quoted(subject.user) + " cannot read the file",
                   "The service does not start: open the file with 'chmod o+r " + path + "'.");
    try {
        subject.services.push_back({id, CheckedFile(ConfigLines::read(path, Dialect::Configuration))});
    } catch (const std::runtime_error& error) {
        report.addNotLookedAt(path, error.what());
    }
}

void checkDaemon(const Subject& subject, Report& report) {
    checkKeys(subject.daemon.lines, keywarden::daemonKeys(), report);
    checkDaemonValues(subject.daemon, report);
    checkDaemonAccounts(subject, report);
    checkDaemonPaths(subject, report);
    checkLock(subject, report);
}

void checkService(const Subject& subject, const CheckedService& service, Report& report) {
    checkKeys(service.file.lines, keywarden::serviceKeys(), report);
    checkServiceValues(service.file, report);
    checkInterfaces(service.file, report);
    checkServiceAccounts(subject, service, report);
    checkCallbacks(subject, service, report);
    checkRequestSettings(subject, service, report);
    checkAuthority(subject, service, report);
    checkServiceRefusal(service, report);
    checkStores(subject, service, report);
    checkCertificates(subject, service, report);
}

}  // namespace

Report checkDevice(const std::vector<std::string>& services) {
    Report report;
    Subject subject;
    checkClock(report);
    if (!readDaemonFile(subject, report))
        return report;
    checkDaemon(subject, report);
    if (!checkDaemonRefusal(subject.daemon, report)) {
        report.addNotLookedAt(subject.daemon.values.text(DaemonKey::ServiceConfigDirectory),
                              "the daemon refuses its own file");
        return report;
    }
    if (!listServices(subject, report))
        return report;
    checkDaemonFolders(subject, report);
    checkServiceFolder(subject, report);
    for (const std::string& id : services.empty() ? subject.allServices : services)
        readService(subject, id, report);
    for (const CheckedService& service : subject.services)
        checkService(subject, service, report);
    checkNetwork(subject, report);
    return report;
}

}  // namespace keywardctl::check
