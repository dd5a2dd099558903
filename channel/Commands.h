#pragma once

#include <string>
#include <vector>

namespace keywarden {

/// The argument of "createcsr" that leaves the addresses out of the request.
constexpr const char* kNoAddressesOption = "CA-CB_compliant";

/// One request line: two opaque header fields, a target, a command and its arguments, separated by TABs.
class Commands {
  public:
    /// The numbers are the interface. Every command has a row in channel/CommandTable.h.
    enum Target : int {
        TargetServer = 0,
        TargetCA = 1,
        TargetClient = 2,
        TargetConfig = 3,
        TargetNone = 4,
    };
    enum Command : int {
        CommandReload = 0,
        CommandHelp = 1,
        CommandGetCsr = 2,
        CommandCreateCsr = 3,
        CommandCreateCrt = 4,
        CommandApplyCrt = 5,
        CommandRevoke = 6,
        CommandList = 7,
        CommandAdd = 8,
        CommandInfo = 9,
        CommandDetails = 10,
        CommandPath = 11,
        CommandGetKey = 12,
        CommandGetCert = 13,
        CommandNone = 14,
        CommandGetOverwrittenData = 15,
        CommandSetOverwrittenData = 16,
        CommandListByCN = 17,
        CommandStatus = 18,
        CommandGetCsrInfo = 19,
        CommandGetCertInfo = 20,
        CommandGetCsrTimestamp = 21,
        CommandEnd,  ///< no command: one more than the last, which stands above
    };

    /// No command at all.
    Commands() = default;

    /// Throws std::runtime_error with the text that the requester receives.
    explicit Commands(const std::string& line);

    /// TargetNone for an unknown word.
    [[nodiscard]] static Target identifyTarget(const std::string& word);

    /// How a request names them; nothing for TargetNone and CommandNone.
    [[nodiscard]] static std::string wordOf(Target target);
    [[nodiscard]] static std::string wordOf(Command command);

    /// The line again.
    [[nodiscard]] std::string toMessage() const;

    [[nodiscard]] Target getTarget() const { return target_; }
    [[nodiscard]] Command getCommand() const { return command_; }
    [[nodiscard]] const std::vector<std::string>& getArguments() const { return arguments_; }
    [[nodiscard]] const std::string& getFirstHeader() const { return firstHeader_; }
    [[nodiscard]] const std::string& getSecondHeader() const { return secondHeader_; }

  private:
    std::string firstHeader_;
    std::string secondHeader_;
    Target target_ = TargetNone;
    Command command_ = CommandNone;
    std::vector<std::string> arguments_;
};

}  // namespace keywarden
