#include <algorithm>

#include "ctl/check/Rules.h"
#include "ctl/check/RunningDaemon.h"
#include "support/Accounts.h"
#include "support/Tools.h"

namespace keywardctl::check {

namespace {

constexpr const char* kGroupFile = "/etc/group";

// The daemon takes its groups once, as root: one that it got later it does not have.
void checkTakenGroup(const Subject& subject, const Place& place, const ConfigKey& key,
                     const std::string& group, Report& report) {
    const pid_t daemon = runningDaemon(subject);
    if (daemon != 0 && !hasGroup(daemon, keywarden::Tools::getGroupId(group)))
        report.add(Code::GroupNotTaken, place,
                   "the running daemon has not got the group " + quoted(group) + " of " + quoted(key) +
                       ": it took its groups when it started",
                   "Restart the daemon; a reload does not do.");
}

void checkGroup(const Subject& subject, const Place& place, const ConfigKey& key, const std::string& group,
                Report& report) {
    if (!keywarden::Tools::isGroupExist(group)) {
        report.add(Code::NoGroup, place,
                   "the group " + quoted(group) + " of " + quoted(key) + " does not exist",
                   "Make it with 'groupadd -r " + group + "' (BusyBox: 'addgroup -S " + group +
                       "') and list the daemon user in it.");
        return;
    }
    if (!subject.identity.isKnown())
        return;
    if (!keywarden::Tools::isUserMemberOfGroup(subject.user, group))
        report.add(Code::NotMember, place,
                   "the daemon user " + quoted(subject.user) + " is not listed in the group " +
                       quoted(group) + " of " + quoted(key),
                   "List it with 'usermod -a -G " + group + " " + subject.user + "' (BusyBox: 'addgroup " +
                       subject.user + " " + group + "'); as its primary group alone it does not count.");
    else
        checkTakenGroup(subject, place, key, group, report);
}

bool isListed(const keywarden::GroupEntry& group, const std::string& user) {
    return std::find(group.members.begin(), group.members.end(), user) != group.members.end();
}

// The daemon looks for its user's name anywhere in a line: "keyuser" is also found in "keyuser2".
void checkUnmeantGroups(const Subject& subject, Report& report) {
    unsigned number = 0;
    for (const std::string& line : keywarden::groupFileLines()) {
        ++number;
        const std::string name = line.substr(0, line.find(':'));
        const auto group = keywarden::findGroup(name);
        if (line.find(subject.user) != std::string::npos && group && name != subject.user &&
            !isListed(*group, subject.user))
            report.add(Code::UnmeantGroup, {kGroupFile, number},
                       "the daemon becomes a member of " + quoted(name) + ", although its user " +
                           quoted(subject.user) + " is not listed there: the name is a part of another one",
                       "Give the daemon a user whose name is no part of other names.");
    }
}

}  // namespace

void checkDaemonAccounts(const Subject& subject, Report& report) {
    const CheckedFile& daemon = subject.daemon;
    const std::string& user = subject.user;
    if (user.empty())
        return;
    if (!subject.identity.isKnown())
        report.add(Code::NoDaemonUser, daemon.at(DaemonKey::DaemonUser),
                   "the user " + quoted(user) + " does not exist",
                   "Make it, and a group of the same name, with 'useradd -r -U " + user +
                       "' (BusyBox: 'addgroup -S " + user + "' and 'adduser -S -D -H -G " + user + " " +
                       user + "').");
    else if (!keywarden::Tools::isGroupExist(user))
        report.add(Code::NoUserGroup, daemon.at(DaemonKey::DaemonUser),
                   "there is no group of the daemon user's name " + quoted(user),
                   "Make it with 'groupadd -r " + user + "' (BusyBox: 'addgroup -S " + user +
                       "'): the daemon would keep root's group.");
    if (const std::string group = daemon.values.text(DaemonKey::NotificationGroup); !group.empty())
        checkGroup(subject, daemon.at(DaemonKey::NotificationGroup), DaemonKey::NotificationGroup, group,
                   report);
    checkUnmeantGroups(subject, report);
}

void checkServiceAccounts(const Subject& subject, const CheckedService& service, Report& report) {
    // The key group counts only for a service with a key.
    for (const ServiceKey key : {ServiceKey::ManagementGroup, ServiceKey::KeyGroup}) {
        if (key == ServiceKey::KeyGroup && !service.file.values.isYes(ServiceKey::Server))
            continue;
        const std::string group = service.file.values.text(key);
        if (group.empty())
            report.add(Code::MissingKey, service.file.whole(), quoted(key) + " is missing",
                       "The service does not start without it.");
        else
            checkGroup(subject, service.file.at(key), key, group, report);
    }
}

}  // namespace keywardctl::check
