#include "stores/CertificateInfoStorage.h"

#include <cxxtools/jsonserializer.h>
#include <cxxtools/serializationinfo.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "stores/RecordFormat.h"
#include "support/FileWriteError.h"
#include "x509/Inspection.h"

namespace keywarden {

CertificateInfoStorage::CertificateInfoStorage(const X509_T& certificate)
    : issuerName(issuerCommonName(certificate)),
      subjectName(subjectCommonName(certificate)),
      isCA(isCertificateAuthority(certificate)),
      isSelfSigned(isSelfSignedCertificate(certificate)),
      validFrom(notBeforeOf(certificate)),
      validUntil(notAfterOf(certificate)) {
    fillSubjectAltName(certificate);
}

CertificateInfoStorage::CertificateInfoStorage(const X509_T& certificate, const std::string& path,
                                               const FileAttributes& attributes)
    : CertificateInfoStorage(certificate) {
    writeIntoFile(path, attributes);
}

void CertificateInfoStorage::fillSubjectAltName(const X509_T& certificate) {
    AlternativeNames names = alternativeNamesOf(certificate);
    validIPs = std::move(names.ips);
    validHostnames = std::move(names.hostnames);
}

std::string CertificateInfoStorage::toJson() const {
    std::ostringstream json;
    cxxtools::JsonSerializer serializer(json);
    serializer.serialize(*this).finish();
    return json.str();
}

void CertificateInfoStorage::writeIntoFile(const std::string& path, const FileAttributes& attributes) const {
    try {
        FileWriter::write(path, toJson(), attributes);
    } catch (const FileWriteError& error) {
        throw unwritable(path, error);
    }
}

// The missing blank and the spelling are part of the text.
std::runtime_error CertificateInfoStorage::unwritable(const std::string& path, const FileWriteError& error) {
    return std::runtime_error("Error: Impossible to open " + path + "for writting with error " +
                              std::strerror(error.errorNumber()));
}

void operator<<=(cxxtools::SerializationInfo& si, const CertificateInfoStorage& info) {
    si.addMember(record::kVersion) <<= record::kCurrentVersion;
    si.addMember(record::kIssuerName) <<= info.issuerName;
    si.addMember(record::kSubjectName) <<= info.subjectName;
    si.addMember(record::kIsCA) <<= info.isCA;
    si.addMember(record::kIsSelfSigned) <<= info.isSelfSigned;
    si.addMember(record::kValidFrom) <<= info.validFrom;
    si.addMember(record::kValidUntil) <<= info.validUntil;
    si.addMember(record::kValidIPs) <<= info.validIPs;
    si.addMember(record::kValidHostnames) <<= info.validHostnames;
}

}  // namespace keywarden
