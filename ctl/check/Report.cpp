#include "ctl/check/Report.h"

#include <algorithm>
#include <cstddef>
#include <map>

namespace keywardctl::check {

namespace {

bool isSame(const Finding& one, const Finding& other) {
    return one.code == other.code && one.place.file == other.place.file &&
           one.place.line == other.place.line && one.text == other.text;
}

}  // namespace

void Report::add(Code code, const Place& place, const std::string& text, const std::string& advice) {
    const CodeEntry& entry = entryOf(code);
    const Finding finding{entry.severity,
                          {printable(place.file), place.line},
                          std::string(entry.name),
                          printable(text),
                          printable(advice)};
    const auto isKnown = [&finding](const Finding& known) { return isSame(known, finding); };
    if (std::none_of(findings_.begin(), findings_.end(), isKnown))
        findings_.push_back(finding);
}

void Report::addNotLookedAt(const std::string& file, const std::string& reason) {
    add(Code::NotLookedAt, {file}, "this could not be looked at: " + reason,
        "Run the check as root, and once the errors above are mended.");
}

std::vector<Finding> Report::findings() const {
    std::map<std::string, std::size_t> ranks;
    for (const Finding& finding : findings_)
        ranks.emplace(finding.place.file, ranks.size());
    std::vector<Finding> sorted = findings_;
    std::stable_sort(sorted.begin(), sorted.end(), [&ranks](const Finding& one, const Finding& other) {
        const std::size_t rank = ranks.at(one.place.file);
        const std::size_t otherRank = ranks.at(other.place.file);
        return rank != otherRank ? rank < otherRank : one.place.line < other.place.line;
    });
    return sorted;
}

bool Report::hasErrorIn(const std::string& file) const {
    return std::any_of(findings_.begin(), findings_.end(), [&file](const Finding& finding) {
        return finding.severity == Severity::Error && finding.place.file == printable(file);
    });
}

std::string quoted(const std::string& text) {
    return "'" + text + "'";
}

}  // namespace keywardctl::check
