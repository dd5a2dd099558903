#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr const char* kBlanks = " \t\n";
constexpr char kComment = '#';

using ConfigMap = std::map<std::string, std::string>;

/// Where a comment is cut off. Of the raw line, an indented line with a trailing comment keeps its blanks, so
/// that its key is empty and it sets nothing.
enum class CommentCut { OfTrimmedLine, OfRawLine };

std::string cleanLine(const std::string& line, CommentCut cut) {
    std::string trimmed = Tools::removeSpaceAtBeginning(line);
    const std::string& source = cut == CommentCut::OfRawLine ? line : trimmed;
    if (const auto comment = source.find(kComment); comment != std::string::npos)
        trimmed = source.substr(0, comment);
    return Tools::removeSpaceFromEnding(trimmed);
}

template <typename Clean>
ConfigMap readMap(std::istream& input, Clean&& clean) {
    ConfigMap values;
    for (std::string line; std::getline(input, line);) {
        const std::string cleaned = clean(line);
        if (cleaned.find(' ') != std::string::npos)
            values.insert(Tools::getKeyAndValue(cleaned));
    }
    return values;
}

}  // namespace

std::string Tools::removeSpaceAtBeginning(const std::string& text) {
    const auto first = text.find_first_not_of(kBlanks);
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::string Tools::removeSpaceFromEnding(const std::string& text) {
    // The first character stays, even a blank.
    const auto last = text.find_last_not_of(kBlanks);
    return text.substr(0, last == std::string::npos ? 1 : last + 1);
}

std::string Tools::cleanConfigLine(const std::string& line) {
    return cleanLine(line, CommentCut::OfTrimmedLine);
}

std::pair<std::string, std::string> Tools::getKeyAndValue(const std::string& line) {
    const auto space = line.find(' ');
    if (space == std::string::npos)
        return {line, std::string()};
    return {line.substr(0, space), removeSpaceAtBeginning(line.substr(space + 1))};
}

std::map<std::string, std::string> Tools::getConfigMap(std::istream& input) {
    return readMap(input, [](const std::string& line) { return cleanLine(line, CommentCut::OfTrimmedLine); });
}

std::map<std::string, std::string> Tools::getConfigFileMap(std::istream& input) {
    return readMap(input, [](const std::string& line) { return cleanLine(line, CommentCut::OfRawLine); });
}

std::map<std::string, std::string> Tools::getMapKeyValue(std::istream& input) {
    return readMap(input, [](const std::string& line) { return line; });
}

std::map<std::string, std::string> Tools::getMapFromStringStream(std::stringstream& input) {
    return getConfigMap(input);
}

}  // namespace keywarden
