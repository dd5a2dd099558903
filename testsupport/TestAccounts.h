#pragma once

#include <string>

namespace testsupport {

/// Groups as a configured device has them, without touching the machine's: the process gets a mount namespace
/// of its own, with an /etc/group that holds the machine's groups and these.
class TestAccounts {
  public:
    static constexpr const char* kManagementGroup = "kwmanage";  ///< root is a member
    static constexpr const char* kKeyGroup = "kwkeys";           ///< root is a member
    static constexpr const char* kForeignGroup = "kwforeign";    ///< root is none
    static constexpr unsigned kManagementGid = 60101;
    static constexpr unsigned kKeyGid = 60102;
    static constexpr unsigned kForeignGid = 60103;

    /// Once for the process. False, after a loud word on standard error, where the machine refuses private
    /// mounts; what needs the groups cannot be checked there.
    static bool areThere();
};

}  // namespace testsupport

/// First in the SetUp of a fixture that needs the groups.
#define REQUIRE_TEST_ACCOUNTS()                 \
    if (!testsupport::TestAccounts::areThere()) \
    GTEST_SKIP() << "NOT CHECKED: this machine refuses private mounts, so there are no groups to check with"
