#pragma once

#include <ftw.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <istream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace keywarden {

struct FileRights {
    std::uint32_t mode;  ///< the whole st_mode, file-type bits included
    std::uint32_t uid;
    std::uint32_t gid;
};

/// Accounts, rights, configuration lines, random names and UTC arithmetic. No state; any thread may call it.
class Tools {
  public:
    // Accounts.
    static bool fileExist(const std::string& path);
    static std::string getUserName();
    static uid_t getUid();
    static pid_t getPid();
    static bool isUserExist(const std::string& name);
    static bool isGroupExist(const std::string& name);
    /// 0 for an unknown group, which is also the root group's number.
    static gid_t getGroupId(const std::string& name);
    /// Whether the group's member list names the user; a primary group alone does not count.
    static bool isUserMemberOfGroup(const std::string& user, const std::string& group);
    /// The groups of every line of /etc/group that holds the user's name anywhere.
    static std::vector<unsigned int> getGroups(const std::string& user);

    // Rights. Failures throw std::runtime_error. A mode or group that already matches is not set again: that
    // would move the file's change time, which dependants of a CA read as a renewal.
    static FileRights getRights(const std::string& path);
    static void changeMode(const std::string& path, unsigned mode);
    static void changeUser(const std::string& path, uid_t uid);
    static bool changeUser(const std::string& path, const std::string& userName);
    static void changeGroup(const std::string& path, gid_t gid);
    /// False, and nothing done, for an unknown group.
    static bool changeGroup(const std::string& path, const std::string& groupName);

    // Files and folders.
    /// An existing folder gets the mode (throws std::runtime_error when it cannot); a missing one is made,
    /// whose failure is only traced.
    static void createDirectory(const std::string& path, unsigned mode);
    static int removeFile(const std::string& path);
    /// Removes the whole tree, the folder itself included; links are removed, never followed.
    static int removeFiles(const std::string& path);
    static int removeOnFile(const char* path, const struct stat* info, int type, FTW* walk);
    static bool isTheSameCertificate(const std::string& fileA, const std::string& fileB);

    // Configuration text. A blank is a space, a tab or a line feed; a carriage return is not.
    static std::string removeSpaceAtBeginning(const std::string& text);
    static std::string removeSpaceFromEnding(const std::string& text);
    static std::string cleanConfigLine(const std::string& line);
    static std::pair<std::string, std::string> getKeyAndValue(const std::string& line);
    static std::map<std::string, std::string> getConfigMap(std::istream& input);
    static std::map<std::string, std::string> getConfigFileMap(std::istream& input);
    static std::map<std::string, std::string> getMapKeyValue(std::istream& input);
    static std::map<std::string, std::string> getMapFromStringStream(std::stringstream& input);

    // Random names and UTC.
    static std::string getRandomName(unsigned length);
    static bool is_leap(int year);
    static int days_from_0(int year);
    static int days_from_1970(int year);
    static int days_from_1jan(int year, int month, int day);
    /// Seconds since the epoch; only the month is normalised.
    static std::int64_t getInternalTimeGmt(const std::tm* time);
    static std::int32_t getSecondBeforeReachTimestamp(std::int32_t timestamp);
};

}  // namespace keywarden
