// The pid file, and giving up root.
#include "daemon/Privileges.h"

#include <grp.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "config/DaemonConfiguration.h"
#include "daemon/PidFile.h"
#include "daemon/StartUp.h"
#include "support/Accounts.h"
#include "support/Cancellation.h"
#include "support/Common.h"
#include "support/Debug.h"
#include "support/FileWriteError.h"
#include "support/GrowingPause.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr int kLookUps = 4;
constexpr std::int64_t kFirstPauseMilliseconds = 20;

[[noreturn]] void failPidFile(const std::string& logged, const std::string& thrown) {
    Log::write(SeverityError, logged);
    throw KeywardenDaemonException(thrown);
}

[[noreturn]] void failPidFileMode(const std::string& path) {
    failPidFile("Error to assign required permissions to: " + path,
                "Failed to assign required permissions to file: " + path);
}

void makePidFile(const std::string& path, const std::string& user) {
    Common::removeFile(path);
    try {
        writePidFile(path, ::getpid(), user);
    } catch (const FileWriteError& error) {
        const std::string failure =
            "Failed to open pid file '" + path + "', err: " + std::strerror(error.errorNumber());
        failPidFile(failure, failure);
    } catch (const std::runtime_error& error) {
        // The text is all that tells it from a user who cannot be set.
        if (error.what() != "Impossible to change mode for " + path)
            throw;
        failPidFileMode(path);
    }
}

// Each step is tried for itself; a failure is logged and the next one follows.
void report(int result, const std::string& failure, const std::string& success) {
    if (result != 0)
        Log::write(SeverityError, failure + std::strerror(errno));
    else
        debugTrace(success);
}

// The accounts were there when the configuration was checked. A look-up that fails now may succeed in a
// moment: a daemon that goes on without its answer goes on as root.
template <typename LookUp>
auto lookUpAgain(LookUp&& lookUp) {
    GrowingPause pause(kFirstPauseMilliseconds);
    auto found = lookUp();
    for (int made = 1; !found && made < kLookUps; ++made) {
        Cancellation::sleep(pause.next());
        found = lookUp();
    }
    return found;
}

UserEntry requireUser(const std::string& user) {
    const auto entry = lookUpAgain([&user] { return findUser(user); });
    if (!entry)
        throw KeywardenDaemonException("The user: " + user +
                                       " is not found any more: the daemon does not go on as root");
    return *entry;
}

// A look-up on the way that fails leaves a group out, so no list counts that was read only once.
std::vector<gid_t> groupsOf(const std::string& user) {
    std::vector<gid_t> groups = Tools::getGroups(user);
    for (int made = 1; made < kLookUps; ++made) {
        std::vector<gid_t> again = Tools::getGroups(user);
        if (again == groups)
            break;
        groups = std::move(again);
    }
    return groups;
}

void becomeUser(const std::string& user) {
    debugTrace("Change the user... ");
    const uid_t uid = requireUser(user).uid;
    const std::vector<gid_t> groups = groupsOf(user);
    if (!groups.empty())
        report(::setgroups(groups.size(), groups.data()),
               "Failed to set groups ID, err: ", " -> Set Groups done.");
    else if (::setgroups(0, nullptr) != 0)  // those of root must not stay
        Log::write(SeverityError, std::string("Failed to set groups ID, err: ") + std::strerror(errno));
    if (const auto gid = lookUpAgain([&user] { return groupIdOf(user); }))
        report(::setregid(*gid, *gid), "Failed to set group ID, err: ", " -> Set main group done.");
    report(::setreuid(uid, uid), "Failed to set user ID, err: ", " -> Set user done.");
    if (uid != 0 && (::getuid() == 0 || ::geteuid() == 0))
        Log::write(SeverityError, "The daemon still runs as root, not as the user " + user + ".");
    debugTrace("Change the user... done.");
}

std::vector<gid_t> ownGroups() {
    const int count = ::getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (!groups.empty())
        groups.resize(static_cast<std::size_t>(std::max(0, ::getgroups(count, groups.data()))));
    return groups;
}

}  // namespace

namespace {

// Nobody has these numbers: the calls only say what is set.
bool hasFileRights(uid_t uid, gid_t gid) {
    return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) == uid &&
           static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == gid;
}

}  // namespace

// With the file system's user the kernel takes the capabilities away that reach past rights of files.
ActingAs::ActingAs(const std::string& user) : groups_(ownGroups()) {
    if (::geteuid() != 0)
        return;
    const UserEntry entry = requireUser(user);
    const std::vector<gid_t> groups = groupsOf(user);
    const gid_t gid = lookUpAgain([&user] { return groupIdOf(user); }).value_or(entry.gid);
    const bool hasGroups = ::setgroups(groups.size(), groups.data()) == 0;
    ::setfsgid(gid);
    ::setfsuid(entry.uid);
    acts_ = true;
    if (hasGroups && hasFileRights(entry.uid, gid))
        return;
    giveBack();
    throw KeywardenDaemonException("The files cannot be reached with the rights of the user " + user);
}

ActingAs::~ActingAs() {
    if (acts_)
        giveBack();
}

void ActingAs::giveBack() const {
    ::setfsuid(::geteuid());
    ::setfsgid(::getegid());
    static_cast<void>(::setgroups(groups_.size(), groups_.data()));
}

void initDaemon() {
    const DaemonConfiguration& configuration = DaemonConfiguration::getInstance();
    makePidFile(configuration.getPidFile(), configuration.getDaemonUser());
    if (::getuid() == 0 || ::geteuid() == 0)
        becomeUser(configuration.getDaemonUser());
}

}  // namespace keywarden
