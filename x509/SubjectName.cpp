#include "x509/SubjectName.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <string>

#include "support/Debug.h"

namespace keywarden {

namespace {

// The call for texts refuses an empty one ("string too short"); with its type given it is taken.
bool addEmptyEntry(X509_NAME* name, int nid) {
    const int type = nid == NID_countryName ? V_ASN1_PRINTABLESTRING : V_ASN1_UTF8STRING;
    const unsigned char nothing[] = "";
    return X509_NAME_add_entry_by_NID(name, nid, type, nothing, 0, -1, 0) == 1;
}

void addEntry(X509_NAME* name, const char* field, const std::string& value) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    const int size = static_cast<int>(value.size());
    if (X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, bytes, size, -1, 0) == 1) {
        return;
    }
    if (!value.empty() || !addEmptyEntry(name, OBJ_txt2nid(field))) {
        debugTrace("Subject entry " + std::string(field) + " is not accepted: '" + value + "'");
    }
    ERR_clear_error();
}

}  // namespace

void addSubjectEntries(X509_NAME* name, const kwdata::CDistinguishedName& subject) {
    if (!subject.email_address.empty()) {
        addEntry(name, "emailAddress", subject.email_address);
    }
    addEntry(name, "C", subject.country);
    addEntry(name, "ST", subject.state);
    addEntry(name, "L", subject.city);
    addEntry(name, "O", subject.company);
    for (const std::string& division : subject.divisions) {
        addEntry(name, "OU", division);
    }
    addEntry(name, "CN", subject.common_name);
}

}  // namespace keywarden
