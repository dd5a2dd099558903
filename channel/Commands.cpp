#include "channel/Commands.h"

#include <algorithm>
#include <stdexcept>

#include "channel/CommandTable.h"
#include "support/Debug.h"

namespace keywarden {

namespace {

constexpr std::size_t kHeaderFields = 4;

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

Commands::Command identifyCommand(const std::string& word, Commands::Target target, std::size_t arguments) {
    const auto* const found = std::find_if(kCommandTable.begin(), kCommandTable.end(),
                                           [&word](const CommandRow& known) { return word == known.word; });
    if (found == kCommandTable.end() || !found->of(target).contains(arguments))
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

Commands::Target Commands::identifyTarget(const std::string& word) {
    const auto* const found = std::find(kTargetWords.begin(), kTargetWords.end(), word);
    return static_cast<Target>(found - kTargetWords.begin());
}

std::string Commands::wordOf(Target target) {
    return target == TargetNone ? std::string() : kTargetWords[static_cast<std::size_t>(target)];
}

std::string Commands::wordOf(Command command) {
    return rowOf(kCommandTable, command).word;
}

std::string Commands::toMessage() const {
    std::string message =
        firstHeader_ + '\t' + secondHeader_ + '\t' + wordOf(target_) + '\t' + wordOf(command_);
    for (const std::string& argument : arguments_)
        message += '\t' + argument;
    debugTrace("Commands::toMessage() :" + message);
    return message;
}

}  // namespace keywarden
