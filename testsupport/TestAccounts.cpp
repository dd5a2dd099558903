#include "testsupport/TestAccounts.h"

#include <iostream>
#include <stdexcept>

#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace testsupport {

namespace {

std::string line(const char* group, unsigned gid, const char* members) {
    return std::string(group) + ":x:" + std::to_string(gid) + ":" + members + "\n";
}

std::string machineGroupsAndOurs() {
    std::string groups = Sandbox::read("/etc/group");
    // A program that was started by another test program finds them already.
    if (groups.find(TestAccounts::kManagementGroup) != std::string::npos)
        return groups;
    if (!groups.empty() && groups.back() != '\n')
        groups += '\n';
    return groups + line(TestAccounts::kManagementGroup, TestAccounts::kManagementGid, "root") +
           line(TestAccounts::kKeyGroup, TestAccounts::kKeyGid, "daemon,root") +
           line(TestAccounts::kForeignGroup, TestAccounts::kForeignGid, "daemon");
}

bool mountGroups() {
    static const Sandbox sandbox;
    if (!enterPrivateMounts()) {
        std::cerr << "PRIVATE MOUNTS ARE REFUSED: what needs groups of its own is not checked\n";
        return false;
    }
    try {
        mountOver(sandbox.write("group", machineGroupsAndOurs()), "/etc/group");
    } catch (const std::runtime_error& error) {
        std::cerr << "PRIVATE MOUNTS ARE REFUSED (" << error.what()
                  << "): what needs groups of its own is not checked\n";
        return false;
    }
    return true;
}

}  // namespace

bool TestAccounts::areThere() {
    static const bool there = mountGroups();
    return there;
}

}  // namespace testsupport
