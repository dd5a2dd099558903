#include "channel/Commands.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "support/Debug.h"

namespace keywarden {

namespace {

constexpr std::array<const char*, 4> kTargetWords{"server", "ca", "client", "config"};
constexpr std::size_t kHeaderFields = 4;

bool isStore(int target) {
    return target == Commands::TargetCA || target == Commands::TargetClient;
}
bool isServer(int target) {
    return target == Commands::TargetServer;
}
bool isConfig(int target) {
    return target == Commands::TargetConfig;
}

struct CommandWord {
    const char* word;
    int code;
    bool (*accepts)(int target, std::size_t arguments);
};

// Which target takes a command with how many arguments. "path" and "info" are as odd as they look.
constexpr std::array<CommandWord, 21> kCommandWords{{
    {"reload", Commands::CommandReload, [](int t, std::size_t n) { return isConfig(t) && n == 0; }},
    {"status", Commands::CommandStatus, [](int t, std::size_t n) { return isConfig(t) && n == 0; }},
    {"getcsr", Commands::CommandGetCsr, [](int t, std::size_t n) { return isServer(t) && n == 0; }},
    {"getcsrinfo", Commands::CommandGetCsrInfo, [](int t, std::size_t n) { return isServer(t) && n == 0; }},
    {"createcsr", Commands::CommandCreateCsr, [](int t, std::size_t) { return isServer(t); }},
    {"createcrt", Commands::CommandCreateCrt, [](int t, std::size_t n) { return isServer(t) && n == 3; }},
    {"applycrt", Commands::CommandApplyCrt, [](int t, std::size_t n) { return isServer(t) && n == 1; }},
    {"getkey", Commands::CommandGetKey, [](int t, std::size_t n) { return isServer(t) && n == 0; }},
    {"revoke", Commands::CommandRevoke,
     [](int t, std::size_t n) { return (isServer(t) && n == 0) || (isStore(t) && n >= 1); }},
    {"add", Commands::CommandAdd, [](int t, std::size_t n) { return isStore(t) && n == 1; }},
    {"list", Commands::CommandList, [](int t, std::size_t n) { return isStore(t) && n == 0; }},
    {"listByCN", Commands::CommandListByCN, [](int t, std::size_t n) { return isStore(t) && n == 1; }},
    {"info", Commands::CommandInfo,
     [](int t, std::size_t n) { return (isServer(t) && n == 0) || (isStore(t) && n >= 1) || n >= 2; }},
    {"help", Commands::CommandHelp, [](int, std::size_t n) { return n == 0; }},
    {"getOverwrittenData", Commands::CommandGetOverwrittenData,
     [](int t, std::size_t n) { return (isServer(t) && n == 0) || (isStore(t) && n == 1); }},
    {"setOverwrittenData", Commands::CommandSetOverwrittenData,
     [](int t, std::size_t n) { return (isServer(t) && n == 2) || (isStore(t) && n == 3); }},
    {"details", Commands::CommandDetails,
     [](int t, std::size_t n) { return (isServer(t) && n == 0) || (isStore(t) && n == 1); }},
    {"path", Commands::CommandPath, [](int t, std::size_t n) { return !isConfig(t) && n != 1; }},
    {"getcert", Commands::CommandGetCert,
     [](int t, std::size_t n) { return (isServer(t) && n == 0) || (isStore(t) && n == 1); }},
    {"getcertinfo", Commands::CommandGetCertInfo, [](int t, std::size_t) { return !isConfig(t); }},
    {"getcsrtimestamp", Commands::CommandGetCsrTimestamp,
     [](int t, std::size_t n) { return isServer(t) && n == 0; }},
}};

// A TAB at the end makes an empty last field.
std::vector<std::string> splitAtTabs(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', start)) {
        fields.push_back(line.substr(start, tab - start));
        start = tab + 1;
    }
    fields.push_back(line.substr(start));
    return fields;
}

int identifyCommand(const std::string& word, int target, std::size_t arguments) {
    const auto* const found = std::find_if(kCommandWords.begin(), kCommandWords.end(),
                                           [&word](const CommandWord& known) { return word == known.word; });
    if (found == kCommandWords.end() || !found->accepts(target, arguments))
        throw std::runtime_error("Bad format for command. Incorrect arguments received for: " + word);
    return found->code;
}

}  // namespace

Commands::Commands(const std::string& line) {
    std::vector<std::string> fields = splitAtTabs(line);
    if (fields.size() < kHeaderFields)
        throw std::runtime_error("Bad format for command.");
    firstHeader_ = fields[0];
    secondHeader_ = fields[1];
    for (std::size_t index = kHeaderFields; index < fields.size(); ++index) {
        debugTrace("number: " + std::to_string(index) + " value:" + fields[index]);
        arguments_.push_back(fields[index]);
    }
    target_ = identifyTarget(fields[2]);
    // The text starts at "format" and names no word: requesters know it so.
    if (target_ == TargetNone)
        throw std::runtime_error("format for command. Invalid target received: ");
    command_ = identifyCommand(fields[3], target_, arguments_.size());
}

int Commands::identifyTarget(const std::string& word) {
    const auto* const found = std::find(kTargetWords.begin(), kTargetWords.end(), word);
    return static_cast<int>(found - kTargetWords.begin());
}

std::string Commands::wordOf(Target target) {
    return target == TargetNone ? std::string() : kTargetWords[static_cast<std::size_t>(target)];
}

std::string Commands::wordOf(Command command) {
    const auto* const found =
        std::find_if(kCommandWords.begin(), kCommandWords.end(),
                     [command](const CommandWord& known) { return command == known.code; });
    return found == kCommandWords.end() ? std::string() : found->word;
}

std::string Commands::toMessage() const {
    std::string message = firstHeader_ + '\t' + secondHeader_ + '\t' + wordOf(static_cast<Target>(target_)) +
                          '\t' + wordOf(static_cast<Command>(command_));
    for (const std::string& argument : arguments_)
        message += '\t' + argument;
    debugTrace("Commands::toMessage() :" + message);
    return message;
}

}  // namespace keywarden
