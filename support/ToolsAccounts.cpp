#include <unistd.h>

#include <algorithm>

#include "support/Accounts.h"
#include "support/Debug.h"
#include "support/Tools.h"

namespace keywarden {

std::string Tools::getUserName() {
    const auto user = findUser(::geteuid());
    return user ? user->name : std::string();
}

uid_t Tools::getUid() {
    return ::geteuid();
}

pid_t Tools::getPid() {
    return ::getpid();
}

bool Tools::isUserExist(const std::string& name) {
    return findUser(name).has_value();
}

bool Tools::isGroupExist(const std::string& name) {
    return findGroup(name).has_value();
}

gid_t Tools::getGroupId(const std::string& name) {
    const auto group = findGroup(name);
    if (!group)
        return 0;
    debugTrace("Group Id: " + name + " - " + std::to_string(group->gid));
    return group->gid;
}

bool Tools::isUserMemberOfGroup(const std::string& user, const std::string& group) {
    const auto entry = findGroup(group);
    if (!entry || !isUserExist(user))
        return false;
    return std::find(entry->members.begin(), entry->members.end(), user) != entry->members.end();
}

std::vector<unsigned int> Tools::getGroups(const std::string& user) {
    std::vector<unsigned int> ids;
    for (const std::string& line : groupFileLines()) {
        // Anywhere in the line: a group is also found by its own name, or by a member whose name is longer.
        if (line.find(user) == std::string::npos)
            continue;
        const std::string name = line.substr(0, line.find(':'));
        const auto group = findGroup(name);
        if (!group)
            continue;
        debugTrace("Group: " + name + " - " + std::to_string(group->gid));
        ids.push_back(group->gid);
    }
    return ids;
}

}  // namespace keywarden
