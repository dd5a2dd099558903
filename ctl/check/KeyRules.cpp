#include <map>

#include "ctl/check/Rules.h"

namespace keywardctl::check {

namespace {

constexpr const char* kBlanks = " \t";

bool startsWithEquals(const std::string& text) {
    return !text.empty() && text.front() == '=';
}

/// The rules for the lines of one file; they remember what earlier lines have set.
class KeyRules {
  public:
    KeyRules(const ConfigLines& lines, const KeyTable& table, Report& report)
        : lines_(lines), table_(table), report_(report) {}

    void check(const ConfigLine& line) {
        const std::string body = bodyOf(line.raw);
        if (body.empty())
            return;
        checkCarriageReturn(line);
        if (!line.sets)
            checkUnset(line, body);
        else if (line.key.empty())
            add(Code::EmptyKey, line,
                "the line sets nothing: it is indented and has a comment, so that its key is empty",
                "Remove the blanks before " + quoted(body) + ", or the comment behind it.");
        else if (checkSeparator(line))
            checkKey(line);
        if (!line.key.empty())
            checkComment(line);
    }

  private:
    void add(Code code, const ConfigLine& line, const std::string& text, const std::string& advice) {
        report_.add(code, {lines_.file(), line.number}, text, advice);
    }

    // Once a file: where one line has it, all have.
    void checkCarriageReturn(const ConfigLine& line) {
        if (hasCarriageReturn_ || line.raw.empty() || line.raw.back() != '\r')
            return;
        hasCarriageReturn_ = true;
        add(Code::CarriageReturn, line,
            "the line ends in a carriage return, which becomes a part of its value",
            "Save the file with Unix line ends.");
    }

    void checkUnset(const ConfigLine& line, const std::string& body) {
        if (body.find('\t') != std::string::npos)
            addTab(line, body.substr(0, body.find('\t')));
        else if (body.find('=') != std::string::npos)
            addEquals(line, body.substr(0, body.find('=')));
        else
            add(Code::KeyWithoutValue, line, quoted(body) + " has no value, so that the line is ignored",
                "Write a space and the value behind it, or remove the line.");
    }

    void addTab(const ConfigLine& line, const std::string& key) {
        add(Code::TabForSpace, line, "a tab follows " + quoted(key) + ", so that the line does not set it",
            "Only a space ends a key: put one in the tab's place.");
    }

    void addEquals(const ConfigLine& line, const std::string& key) {
        add(Code::EqualsSign, line,
            "an equals sign follows " + quoted(key) + ", so that the line does not set what it seems to",
            "A key and its value are separated by a space alone: remove the equals sign.");
    }

    bool checkSeparator(const ConfigLine& line) {
        const auto tab = line.key.find('\t', line.key.find_first_not_of(kBlanks));
        const auto equals = line.key.find('=');
        if (tab != std::string::npos)
            addTab(line, line.key.substr(0, tab));
        else if (equals != std::string::npos || startsWithEquals(line.value))
            addEquals(line, line.key.substr(0, equals));
        return tab == std::string::npos && equals == std::string::npos;
    }

    void checkKey(const ConfigLine& line) {
        if (findKey(table_, line.key) == nullptr) {
            addUnknown(line);
            return;
        }
        const auto [first, isFirst] = firstLines_.emplace(line.key, line.number);
        if (!isFirst)
            add(Code::RepeatedKey, line,
                quoted(line.key) + " is given again; the one in line " + std::to_string(first->second) +
                    " counts",
                "Remove one of the two lines.");
    }

    void addUnknown(const ConfigLine& line) {
        const std::string nearest = nearestKey(table_, line.key);
        std::string advice = "Correct the key, or remove the line.";
        if (!nearest.empty())
            advice = "Did you mean " + quoted(nearest) + "?";
        else if (line.key == "subjectAltName")
            advice = "Names and addresses come from the network script; the service file chooses among them.";
        add(Code::UnknownKey, line, quoted(line.key) + " is no key of this file and is ignored", advice);
    }

    // A comment with blanks around its sign is one; a sign that touches a word was rather meant as a part of
    // it.
    void checkComment(const ConfigLine& line) {
        const auto sign = line.raw.find('#');
        if (sign == std::string::npos)
            return;
        const bool touchesBefore = std::string(kBlanks).find(line.raw[sign - 1]) == std::string::npos;
        const bool touchesAfter =
            sign + 1 < line.raw.size() && std::string(" \t\r#").find(line.raw[sign + 1]) == std::string::npos;
        if (touchesBefore || touchesAfter)
            add(Code::HashInValue, line, "the value ends before the '#': " + quoted(line.value),
                "A value cannot hold that sign. A comment stands best on a line of its own.");
    }

    const ConfigLines& lines_;
    const KeyTable& table_;
    Report& report_;
    std::map<std::string, unsigned> firstLines_;
    bool hasCarriageReturn_ = false;
};

}  // namespace

void checkKeys(const ConfigLines& lines, const KeyTable& table, Report& report) {
    KeyRules rules(lines, table, report);
    for (const ConfigLine& line : lines.lines())
        rules.check(line);
}

}  // namespace keywardctl::check
