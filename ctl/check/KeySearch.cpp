#include "ctl/check/KeySearch.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <numeric>
#include <vector>

namespace keywardctl::check {

namespace {

constexpr std::size_t kShortKey = 3;
constexpr std::size_t kNear = 2;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return text;
}

// How many letters have to be changed, added or left out (Levenshtein).
std::size_t distanceBetween(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t line = 0; line < one.size(); ++line) {
        std::size_t diagonal = row[0];
        row[0] = line + 1;
        for (std::size_t column = 0; column < other.size(); ++column) {
            const std::size_t change = diagonal + (one[line] == other[column] ? 0U : 1U);
            diagonal = row[column + 1];
            row[column + 1] = std::min({change, row[column] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string nameOf(const KeyRow& key, const std::string& number) {
    return std::string(key.name) + (key.numbered ? "." + number : "");
}

}  // namespace

std::string interfaceNumberOf(const std::string& name) {
    const auto point = name.rfind('.');
    const std::string number = point == std::string::npos ? std::string() : name.substr(point + 1);
    const bool digits = !number.empty() && std::all_of(number.begin(), number.end(), [](unsigned char digit) {
        return std::isdigit(digit) != 0;
    });
    return digits && (number == "0" || number.front() != '0') ? number : std::string();
}

const KeyRow* findKey(const KeyTable& table, const std::string& name) {
    const std::string number = interfaceNumberOf(name);
    const KeyRow* const found = std::find_if(table.begin(), table.end(), [&](const KeyRow& key) {
        return !(key.numbered && number.empty()) && name == nameOf(key, number);
    });
    return found == table.end() ? nullptr : found;
}

std::string nearestKey(const KeyTable& table, const std::string& name) {
    const std::string given = interfaceNumberOf(name);
    const std::string number = given.empty() ? "0" : given;
    std::string nearest;
    // Of a short key every other short one is near.
    std::size_t best = name.size() <= kShortKey ? 1 : kNear + 1;
    for (const KeyRow& key : table) {
        const std::string candidate = nameOf(key, number);
        const std::size_t distance = distanceBetween(lower(name), lower(candidate));
        if (distance < best) {
            best = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

}  // namespace keywardctl::check
