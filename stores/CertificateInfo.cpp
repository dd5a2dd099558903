#include "stores/CertificateInfo.h"

#include <cxxtools/jsondeserializer.h>
#include <cxxtools/serializationinfo.h>

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "stores/IndexFile.h"
#include "stores/RecordFormat.h"
#include "stores/RegularFile.h"
#include "support/Failure.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr std::size_t kLargestRecord = std::size_t{8} * 1024 * 1024;
constexpr std::ptrdiff_t kMostBrackets = 1000;

class BadFormat : public std::runtime_error {
  public:
    BadFormat() : std::runtime_error("Error: Bad format for Certificate info file!") {}
};

// The JSON reader descends once a bracket: a file of nothing but brackets would exhaust the stack. A record
// has three; the others stand in names.
void refuseManyBrackets(const std::string& json) {
    const auto opens = [](char character) { return character == '{' || character == '['; };
    if (std::count_if(json.begin(), json.end(), opens) > kMostBrackets)
        throw std::runtime_error("It is not a certificate record");
}

std::string joined(const std::vector<std::string>& values) {
    std::string text;
    for (const std::string& value : values)
        text += (text.empty() ? "" : " ") + value;
    return text;
}

// Every name is number 1, whatever its place in the list: readers rely on it.
void writeNames(std::ostream& out, const char* kind, const std::vector<std::string>& names) {
    for (const std::string& name : names)
        out << kind << ".1: " << onOneLine(name) << "\n";
}

}  // namespace

CertificateInfo::CertificateInfo(const std::string& path) {
    read(path);
}

void CertificateInfo::read(const std::string& path) {
    const std::string subject = "Error: Impossible to open " + path + " for reading!";
    if (!Tools::fileExist(path))
        throw std::runtime_error(subject + " Because the file does not exist.");
    try {
        const std::string json = readRegularFile(path, kLargestRecord);
        refuseManyBrackets(json);
        std::istringstream in(json);
        const cxxtools::JsonDeserializer deserializer(in);
        CertificateInfo fresh(*this);
        deserializer.deserialize(fresh);
        *this = std::move(fresh);
    } catch (const BadFormat&) {
        throw;
    } catch (...) {
        throw std::runtime_error(Failure::current().message(
            subject, "Generic exception caught while opening " + path + " for reading!"));
    }
}

void operator>>=(const cxxtools::SerializationInfo& si, CertificateInfo& info) {
    int version = 0;
    si.getMember(record::kVersion) >>= version;
    if (version <= 0)
        throw BadFormat();
    si.getMember(record::kIssuerName) >>= info.issuerName;
    si.getMember(record::kSubjectName) >>= info.subjectName;
    si.getMember(record::kIsCA) >>= info.isCA;
    si.getMember(record::kIsSelfSigned) >>= info.isSelfSigned;
    si.getMember(record::kValidFrom) >>= info.validFrom;
    si.getMember(record::kValidUntil) >>= info.validUntil;
    si.getMember(record::kValidIPs) >>= info.validIPs;
    si.getMember(record::kValidHostnames) >>= info.validHostnames;
}

std::map<std::string, std::string> CertificateInfo::getMap() const {
    return {
        {record::kIssuerName, issuerName},
        {record::kSubjectName, subjectName},
        {record::kIsCA, boolToString(isCA)},
        {record::kIsSelfSigned, boolToString(isSelfSigned)},
        {record::kValidFrom, std::to_string(validFrom)},
        {record::kValidUntil, std::to_string(validUntil)},
        {record::kValidIPs, joined(validIPs)},
        {record::kValidHostnames, joined(validHostnames)},
    };
}

std::string CertificateInfo::boolToString(bool value) {
    return value ? "yes" : "no";
}

std::ostream& operator<<(std::ostream& out, const CertificateInfo& info) {
    out << "issuerName: " << onOneLine(info.issuerName) << "\n"
        << "subjectName: " << onOneLine(info.subjectName) << "\n"
        << "CA: " << CertificateInfo::boolToString(info.isCA) << "\n"
        << "CASigned: " << CertificateInfo::boolToString(!info.isSelfSigned) << "\n"
        << "selfSigned: " << CertificateInfo::boolToString(info.isSelfSigned) << "\n"
        << "validFrom: " << std::to_string(info.validFrom) << "\n"
        << "validUntil: " << std::to_string(info.validUntil) << "\n";
    writeNames(out, "IP", info.validIPs);
    writeNames(out, "DNS", info.validHostnames);
    return out;
}

}  // namespace keywarden
