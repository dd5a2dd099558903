#include "stores/CertificateInfo.h"

#include <cxxtools/jsondeserializer.h>
#include <cxxtools/serializationinfo.h>

#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "stores/CertificateId.h"
#include "stores/CertificateInfoStorage.h"
#include "stores/IndexFile.h"
#include "stores/RecordFormat.h"
#include "support/Failure.h"
#include "support/RegularFile.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

// A byte of a certificate's name becomes at most two of UTF-8, each written in six characters.
constexpr std::size_t kLargestRecord = 12 * kLargestCertificateFile;
// A record has two levels; a later version may have more.
constexpr std::size_t kDeepestLevel = 100;

class BadFormat : public std::runtime_error {
  public:
    BadFormat() : std::runtime_error("Error: Bad format for Certificate info file!") {}
};

/// Where the text that begins with the quotation mark at `start` ends; at the end of the file without a mark.
std::size_t endOfText(const std::string& json, std::size_t start) {
    std::size_t at = start + 1;
    while (at < json.size() && json[at] != '"')
        at += json[at] == '\\' ? 2 : 1;
    return at;
}

bool closes(char character, const std::string& open) {
    return !open.empty() && character == (open.back() == '{' ? '}' : ']');
}

// The JSON reader descends once a level, so a file of nothing but brackets would exhaust the stack. Brackets
// in names are no levels. The reader also knows comments, in which a quotation mark begins no text: no record
// has one.
void refuseDeepLevels(const std::string& json) {
    std::string open;
    for (std::size_t at = 0; at < json.size(); ++at) {
        const char character = json[at];
        if (character == '"')
            at = endOfText(json, at);
        else if (character == '{' || character == '[')
            open += character;
        else if (closes(character, open))
            open.pop_back();
        if (open.size() > kDeepestLevel || character == '/')
            throw std::runtime_error("It is not a certificate record");
    }
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

CertificateInfo::CertificateInfo(const CertificateInfoStorage& made)
    : issuerName(made.issuerName),
      subjectName(made.subjectName),
      isCA(made.isCA),
      isSelfSigned(made.isSelfSigned),
      validFrom(made.validFrom),
      validUntil(made.validUntil),
      validIPs(made.validIPs),
      validHostnames(made.validHostnames) {}

void CertificateInfo::read(const std::string& path) {
    const std::string subject = "Error: Impossible to open " + path + " for reading!";
    if (!Tools::fileExist(path))
        throw std::runtime_error(subject + " Because the file does not exist.");
    try {
        const std::string json = readRegularFile(path, kLargestRecord);
        refuseDeepLevels(json);
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
