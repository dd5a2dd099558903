#include "ctl/check/ConfigLines.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywardctl::check {

namespace {

constexpr const char* kBlanks = " \t\r\n";

std::map<std::string, std::string> readByDaemon(const std::string& text, Dialect dialect) {
    std::istringstream input(text);
    return dialect == Dialect::Configuration ? keywarden::Tools::getConfigFileMap(input)
                                             : keywarden::Tools::getConfigMap(input);
}

ConfigLine lineOfText(unsigned number, const std::string& raw, Dialect dialect) {
    ConfigLine line{number, raw, false, "", ""};
    for (const auto& [key, value] : readByDaemon(raw, dialect)) {
        line.sets = true;
        line.key = key;
        line.value = value;
    }
    return line;
}

}  // namespace

ConfigLines::ConfigLines(std::string file, const std::string& content, Dialect dialect)
    : file_(std::move(file)) {
    std::istringstream input(content);
    for (std::string raw; std::getline(input, raw);)
        lines_.push_back(lineOfText(static_cast<unsigned>(lines_.size() + 1), raw, dialect));
}

ConfigLines ConfigLines::read(const std::string& file, Dialect dialect) {
    return {file, keywarden::readRegularFile(file, keywarden::kLargestConfigurationFile), dialect};
}

std::map<std::string, std::string> ConfigLines::values() const {
    std::map<std::string, std::string> values;
    for (const ConfigLine& line : lines_) {
        if (line.sets)
            values.emplace(line.key, line.value);
    }
    return values;
}

unsigned ConfigLines::lineOf(const std::string& key) const {
    const auto found = std::find_if(lines_.begin(), lines_.end(),
                                    [&key](const ConfigLine& line) { return line.sets && line.key == key; });
    return found == lines_.end() ? 0 : found->number;
}

std::string bodyOf(const std::string& raw) {
    const std::string body = raw.substr(0, raw.find('#'));
    const auto first = body.find_first_not_of(kBlanks);
    if (first == std::string::npos)
        return {};
    return body.substr(first, body.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace keywardctl::check
