
#include "ctl/check/Rules.h"
#include "support/FileStatus.h"

namespace keywardctl::check {

namespace {

constexpr const char* kReadyFolder = "/var/run/ready";

/// The rules for what the daemon's file names; they all tell the same three outcomes.
class PathRules {
  public:
    PathRules(const Subject& subject, Report& report)
        : subject_(subject), file_(subject.daemon), user_(quoted(subject.user)), report_(report) {}

    /// `then` says what becomes of it.
    void requireParent(const ConfigKey& key, unsigned wanted, Code code, const std::string& then) {
        const std::string path = file_.values.text(key);
        if (!path.empty())
            require(file_.at(key), parentOf(path), wanted, code, then);
    }

    void requireFolder(const ConfigKey& key, unsigned wanted, Code code, const std::string& then) {
        const std::string path = file_.values.text(key);
        if (!path.empty())
            require(file_.at(key), path, wanted, code, then);
    }

    void requireReadyFolder() {
        const std::string then = "nobody learns that the daemon is ready.";
        const AccessAnswer answer = subject_.identity.access(kReadyFolder, kWrite | kSearch);
        if (answer.access == Access::Missing)
            report_.add(Code::ReadyFolder, {kReadyFolder}, "the folder does not exist: " + then,
                        "Make it at every boot with 'install -d -o " + subject_.user + " -g " +
                            subject_.user + " /run/ready'.");
        else
            refuse({kReadyFolder}, answer, Code::ReadyFolder, then);
    }

    void requireScript() {
        const std::string folder = file_.values.text(DaemonKey::ScriptsDirectory);
        if (folder.empty())
            return;
        const std::string script = folder + "/network.sh";
        const AccessAnswer answer = subject_.identity.access(script, kRun);
        const auto status = keywarden::statusOfPath(script);
        const bool isFolder = status && status->isFolder();
        if (answer.access == Access::Unknown)
            report_.addNotLookedAt(answer.where, answer.reason);
        else if (answer.access != Access::Granted || isFolder)
            report_.add(Code::NetworkScript, file_.at(DaemonKey::ScriptsDirectory),
                        quoted(script) + " cannot be run by the daemon user " + user_ +
                            ": the daemon does not "
                            "start",
                        "Put the platform's network script there, with mode 0755.");
        checkOpenToOthers(file_.at(DaemonKey::ScriptsDirectory), script, report_);
    }

    void refuseInsidePipes(const ConfigKey& key) {
        const std::string pipes = file_.values.text(DaemonKey::NamePipesDirectory) + "/";
        const std::string path = file_.values.text(key) + "/";
        if (pipes.size() > 1 && path.size() > 1 && path.compare(0, pipes.size(), pipes) == 0)
            report_.add(Code::InsidePipes, file_.at(key),
                        quoted(key) +
                            " lies inside the folder of the pipes, which the daemon removes with "
                            "everything in it whenever it starts",
                        "Choose a place outside of " +
                            quoted(file_.values.text(DaemonKey::NamePipesDirectory)) + ".");
    }

  private:
    void require(const Place& place, const std::string& folder, unsigned wanted, Code code,
                 const std::string& then) {
        const AccessAnswer answer = subject_.identity.access(folder, wanted);
        if (answer.access == Access::Missing)
            report_.add(Code::FolderMissing, place, "the folder " + quoted(folder) + " does not exist",
                        "Make it with 'install -d -o " + subject_.user + " -g " + subject_.user + " " +
                            folder + "', below /run at every boot.");
        else
            refuse(place, answer, code, then);
    }

    void refuse(const Place& place, const AccessAnswer& answer, Code code, const std::string& then) {
        if (answer.access == Access::Unknown)
            report_.addNotLookedAt(answer.where, answer.reason);
        else if (answer.access == Access::Refused)
            report_.add(
                code, place,
                "the daemon user " + user_ + " may not use the folder " + quoted(answer.where) + ": " + then,
                "Once started, the daemon is no longer root: give the folder to its user or open it "
                "with chown and chmod.");
    }

    const Subject& subject_;
    const CheckedFile& file_;
    const std::string user_;
    Report& report_;
};

}  // namespace

void checkOpenToOthers(const Place& place, const std::string& path, Report& report) {
    const auto status = keywarden::statusOfPath(path);
    if (status && status->isRegular() && (status->mode & S_IWOTH) != 0)
        report.add(Code::OpenToOthers, place,
                   "everybody may write " + quoted(path) + ", which the daemon runs",
                   "Close it with 'chmod o-w " + path + "'.");
}

void checkDaemonPaths(const Subject& subject, Report& report) {
    PathRules rules(subject, report);
    for (const DaemonKey key : {DaemonKey::KeywardDirectory, DaemonKey::ServiceConfigDirectory,
                                DaemonKey::ScriptsDirectory, DaemonKey::LockFile, DaemonKey::PidFile})
        rules.refuseInsidePipes(key);
    // Without a user there is nobody to ask the folders for.
    if (!subject.identity.isKnown())
        return;
    rules.requireParent(DaemonKey::KeywardDirectory, kSearch, Code::StoreFolder,
                        "no certificate can be stored.");
    rules.requireFolder(DaemonKey::ServiceConfigDirectory, kRead | kSearch, Code::ServicesFolder,
                        "it finds no services.");
    rules.requireParent(DaemonKey::NamePipesDirectory, kWrite | kSearch, Code::PipesFolder,
                        "the folder of the pipes stays behind when it stops.");
    rules.requireScript();
    rules.requireParent(DaemonKey::LockFile, kWrite | kSearch, Code::LockFolder,
                        "the lock stays behind when it stops, and it does not start again.");
    rules.requireParent(DaemonKey::PidFile, kWrite | kSearch, Code::PidFolder,
                        "the pid file stays behind when it stops.");
    rules.requireReadyFolder();
}

}  // namespace keywardctl::check
