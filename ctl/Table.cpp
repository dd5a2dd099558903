#include "ctl/Table.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace keywardctl {

namespace {

constexpr const char* kReset = "\033[0m";

const char* sequenceOf(Colour colour) {
    switch (colour) {
        case Colour::Good:
            return "\033[32m";
        case Colour::Doubtful:
            return "\033[33m";
        case Colour::Bad:
            return "\033[31m";
        default:
            return "";
    }
}

/// In characters of UTF-8 text.
std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
    }));
}

std::string lineOf(const std::vector<Cell>& row, const std::vector<std::size_t>& widths, bool colours) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
        const Cell& cell = row[column];
        const bool coloured = colours && cell.colour != Colour::None;
        line += coloured ? sequenceOf(cell.colour) + cell.text + kReset : cell.text;
        if (column + 1 < row.size())
            line.append(widths[column] - widthOf(cell.text) + 2, ' ');
    }
    return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

}  // namespace

std::string Table::text(bool colours) const {
    std::vector<std::size_t> widths;
    std::vector<Cell> headings;
    for (const std::string& heading : headings_) {
        widths.push_back(widthOf(heading));
        headings.push_back({heading});
    }
    for (const auto& row : rows_) {
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], widthOf(row[column].text));
    }
    std::string text = lineOf(headings, widths, false);
    for (const auto& row : rows_)
        text += lineOf(row, widths, colours);
    return text;
}

bool wantsColours(const std::string& choice) {
    if (choice != "auto")
        return choice == "always";
    const char* const refused = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return (refused == nullptr || *refused == '\0') && ::isatty(STDOUT_FILENO) == 1 &&
           (terminal == nullptr || std::string_view(terminal) != "dumb");
}

}  // namespace keywardctl
