#include "x509/SubjectName.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>
#include <string>

#include "support/Debug.h"
#include "x509/MemoryWatch.h"
#include "x509/OpenSslPtr.h"
#include "x509/Validation.h"

namespace keywarden {

namespace {

struct FreeLine {
    void operator()(char* line) const { OPENSSL_free(line); }
};
using LinePtr = std::unique_ptr<char, FreeLine>;

// The call for texts refuses an empty one ("string too short"); with its type given it is taken.
bool addEmptyEntry(X509_NAME* name, int nid) {
    const int type = nid == NID_countryName ? V_ASN1_PRINTABLESTRING : V_ASN1_UTF8STRING;
    const unsigned char nothing[] = "";
    return X509_NAME_add_entry_by_NID(name, nid, type, nothing, 0, -1, 0) == 1;
}

void addEntry(X509_NAME* name, const char* field, const std::string& value) {
    const MemoryWatch watch;
    const auto* bytes = reinterpret_cast<const unsigned char*>(value.data());
    const int size = static_cast<int>(value.size());
    if (X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, bytes, size, -1, 0) == 1) {
        return;
    }
    watch.throwIfRefused();
    if (!value.empty() || !addEmptyEntry(name, OBJ_txt2nid(field))) {
        watch.throwIfRefused();
        debugTrace("Subject entry " + std::string(field) + " is not accepted: '" + value + "'");
    }
    ERR_clear_error();
}

// As in the one-line form of a name: bytes outside ASCII as "\xNN", a backslash before a slash.
std::string valueOnOneLine(const X509_NAME_ENTRY* entry) {
    const X509NamePtr alone(X509_NAME_new());
    if (!alone || X509_NAME_add_entry(alone.get(), entry, -1, 0) != 1) {
        return std::string();
    }
    const LinePtr line(X509_NAME_oneline(alone.get(), nullptr, 0));
    const std::string text = line ? line.get() : "";
    return text.substr(std::min(text.size(), text.find('=') + 1));
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

kwdata::CDistinguishedName describedName(const X509_NAME* name) {
    const MemoryWatch watch;
    kwdata::CDistinguishedName described;
    if (_subject_as_line(name).empty()) {
        watch.throwIfRefused();
        return described;
    }
    for (int index = 0; index < X509_NAME_entry_count(name); ++index) {
        const X509_NAME_ENTRY* const entry = X509_NAME_get_entry(name, index);
        const int nid = OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry));
        if (nid != NID_undef) {
            described.add(OBJ_nid2sn(nid), valueOnOneLine(entry));
        }
    }
    watch.throwIfRefused();
    ERR_clear_error();
    return described;
}

}  // namespace keywarden
