// The two forms in which a report leaves the program.
#include <cxxtools/jsonserializer.h>
#include <cxxtools/serializationinfo.h>
#include <cxxtools/string.h>
#include <cxxtools/utf8codec.h>

#include <algorithm>
#include <sstream>

#include "ctl/check/Report.h"

namespace keywardctl::check {

namespace {

constexpr int kJsonVersion = 1;

std::string lineOf(const Finding& finding) {
    std::string line = finding.place.file.empty() ? std::string("the device") : finding.place.file;
    if (finding.place.line != 0)
        line += ":" + std::to_string(finding.place.line);
    return line + ": " + std::string(nameOf(finding.severity)) + ": " + finding.text + " [" + finding.code +
           "]\n    " + finding.advice + "\n";
}

std::string counted(const std::vector<Finding>& findings, Severity severity) {
    const auto count = std::count_if(findings.begin(), findings.end(), [severity](const Finding& finding) {
        return finding.severity == severity;
    });
    return std::to_string(count) + " " + std::string(nameOf(severity)) + (count == 1 ? "" : "s");
}

// Otherwise every byte of a character outside ASCII would be written as a character of its own.
cxxtools::String unicode(const std::string& text) {
    return cxxtools::Utf8Codec::decode(text);
}

struct JsonReport {
    const std::vector<Finding>& findings;
};

void operator<<=(cxxtools::SerializationInfo& si, const Finding& finding) {
    si.addMember("severity") <<= std::string(nameOf(finding.severity));
    si.addMember("file") <<= unicode(finding.place.file);
    si.addMember("line") <<= finding.place.line;
    si.addMember("code") <<= finding.code;
    si.addMember("text") <<= unicode(finding.text);
    si.addMember("advice") <<= unicode(finding.advice);
}

void operator<<=(cxxtools::SerializationInfo& si, const JsonReport& report) {
    si.addMember("version") <<= kJsonVersion;
    cxxtools::SerializationInfo& findings = si.addMember("findings");
    findings.setCategory(cxxtools::SerializationInfo::Array);
    for (const Finding& finding : report.findings)
        findings.addMember(std::string()) <<= finding;
}

}  // namespace

std::string reportText(const Report& report) {
    const std::vector<Finding> findings = report.findings();
    if (findings.empty())
        return "Nothing found.\n";
    std::string text;
    for (const Finding& finding : findings)
        text += lineOf(finding);
    return text + counted(findings, Severity::Error) + ", " + counted(findings, Severity::Warning) + ", " +
           counted(findings, Severity::Note) + "\n";
}

std::string reportJson(const Report& report) {
    const std::vector<Finding> findings = report.findings();
    std::ostringstream json;
    cxxtools::JsonSerializer serializer(json);
    serializer.serialize(JsonReport{findings}).finish();
    return json.str() + "\n";
}

}  // namespace keywardctl::check
