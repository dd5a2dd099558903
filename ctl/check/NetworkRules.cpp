#include "ctl/check/NetworkAnswer.h"
#include "ctl/check/Rules.h"

namespace keywardctl::check {

namespace {

constexpr ServiceKey kNames = ServiceKey::IncludeFQDN;

/// The keys under which a service lists interfaces that the daemon reads.
std::vector<ConfigKey> interfaceKeysOf(const CheckedFile& file) {
    std::vector<ConfigKey> keys;
    for (unsigned number = 0; file.values.has({ServiceKey::NetworkInterface, number}); ++number)
        keys.emplace_back(ServiceKey::NetworkInterface, number);
    return keys;
}

void checkService(const CheckedFile& file, const NetworkAnswer& answer, Report& report) {
    for (const ConfigKey& key : interfaceKeysOf(file)) {
        const std::string name = file.values.text(key);
        if (answer.interfaces.find(name) == answer.interfaces.end())
            report.add(Code::UnknownInterface, file.at(key), "the device has no interface " + quoted(name),
                       "Certificates go without its addresses; 'ip link' lists the device's interfaces.");
    }
    if (file.values.isYes(kNames) && !answer.hasNames)
        report.add(Code::NoDeviceNames, file.at(kNames), "the network script tells no name of the device",
                   "Give the device a host name; certificates go without one.");
}

}  // namespace

void checkNetwork(const Subject& subject, Report& report) {
    std::set<std::string> interfaces;
    bool isAsked = false;
    for (const CheckedService& service : subject.services) {
        for (const ConfigKey& key : interfaceKeysOf(service.file))
            interfaces.insert(service.file.values.text(key));
        isAsked = isAsked || !interfaces.empty() || service.file.values.isYes(kNames);
    }
    const std::string script = subject.daemon.values.text(DaemonKey::ScriptsDirectory) + "/network.sh";
    // A script that cannot be run was told of already.
    if (!isAsked || subject.identity.access(script, kRun).access != Access::Granted)
        return;
    const auto answer = askNetwork(subject.user, interfaces);
    if (!answer) {
        report.addNotLookedAt(script, "it could not be run as the daemon user");
        return;
    }
    for (const CheckedService& service : subject.services)
        checkService(service.file, *answer, report);
}

}  // namespace keywardctl::check
