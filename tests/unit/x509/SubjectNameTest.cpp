#include "x509/SubjectName.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "cnf/CDistinguishedName.h"
#include "x509/Description.h"
#include "x509/OpenSslPtr.h"
#include "x509/Validation.h"

namespace {

using keywarden::_subject_as_line;
using keywarden::describedName;
using keywarden::X509NamePtr;
using kwdata::CDistinguishedName;

struct Entry {
    const char* key;  ///< a name of OpenSSL's, or a dotted number
    std::string value;
    bool joinsTheOneBefore = false;
    int type = V_ASN1_UTF8STRING;
};

X509NamePtr nameOf(const std::vector<Entry>& entries) {
    X509NamePtr name(X509_NAME_new());
    for (const Entry& entry : entries) {
        ASN1_OBJECT* const object = OBJ_txt2obj(entry.key, 0);
        const auto* const bytes = reinterpret_cast<const unsigned char*>(entry.value.data());
        EXPECT_EQ(X509_NAME_add_entry_by_OBJ(name.get(), object, entry.type, bytes,
                                             static_cast<int>(entry.value.size()), -1,
                                             entry.joinsTheOneBefore ? -1 : 0),
                  1)
            << entry.key;
        ASN1_OBJECT_free(object);
    }
    return name;
}

std::string lineOf(const CDistinguishedName& name) {
    std::string text;
    name.to(text);
    return text;
}

std::string described(const std::vector<Entry>& entries) {
    return lineOf(describedName(nameOf(entries).get()));
}

/// What the printed line reads back as.
std::string printedAndRead(const std::vector<Entry>& entries) {
    return lineOf(CDistinguishedName::from(_subject_as_line(nameOf(entries).get())));
}

TEST(DescribedName, OrdinaryNamesAreWhatTheirLineReadsBackAs) {
    const std::vector<std::vector<Entry>> names = {
        {{"C", "US"},
         {"ST", "NC"},
         {"L", "City"},
         {"O", "Firm, Inc."},
         {"OU", "a"},
         {"OU", ""},
         {"CN", "host"}},
        {{"emailAddress", "a@b"}, {"C", "US"}, {"O", ""}, {"CN", ""}},
        {{"DC", "example"}, {"DC", "com"}, {"CN", "caf\xc3\xa9"}, {"emailAddress", "a@b"}},
        {{"CN", "first"}, {"UID", "me"}, {"CN", "second"}, {"SN", "name"}, {"GN", "given"}},
        {{"O", "a/b"}, {"CN", "http://host:80/path=x"}, {"serialNumber", "5"}},
        {{"CN", R"(DOMAIN\user)"}, {"O", "R&D = 1"}},
        {{"C", "FR"}, {"CN", std::string("\0w\0e\0b", 6), false, V_ASN1_BMPSTRING}},
    };
    for (const std::vector<Entry>& name : names)
        EXPECT_EQ(described(name), printedAndRead(name));
    EXPECT_EQ(described(names[0]), "C=US, ST=NC, L=City, O=Firm, Inc., OU=a, OU=, CN=host");
    EXPECT_EQ(described(names[2]), R"(CN=caf\xC3\xA9, email=a@b)");
    EXPECT_EQ(described(names[4]), R"(O=a\/b, CN=http:\/\/host:80\/path=x)");
}

TEST(DescribedName, ASlashInAValueInventsNoAttribute) {
    const CDistinguishedName name = describedName(nameOf({{"CN", "a/emailAddress=evil@b"}}).get());
    EXPECT_EQ(name.common_name, "a/emailAddress=evil@b");
    EXPECT_EQ(name.email_address, "");
    EXPECT_EQ(lineOf(name), R"(CN=a\/emailAddress=evil@b)");
    EXPECT_EQ(printedAndRead({{"CN", "a/emailAddress=evil@b"}}), lineOf(name));
    EXPECT_EQ(described({{"O", "a/CN=evil"}, {"CN", "host"}}), R"(O=a\/CN=evil, CN=host)");
}

TEST(DescribedName, ACommaInAValueInventsNoAttribute) {
    const CDistinguishedName name = describedName(nameOf({{"O", "a, CN=evil"}, {"CN", "host"}}).get());
    EXPECT_EQ(name.company, "a, CN=evil");
    EXPECT_EQ(name.common_name, "host");
    EXPECT_EQ(lineOf(name), R"(O=a\, CN=evil, CN=host)");
    EXPECT_EQ(CDistinguishedName::from(lineOf(name)).common_name, "host");
}

TEST(DescribedName, ABackslashInAValueHidesNoAttribute) {
    const CDistinguishedName name =
        describedName(nameOf({{"CN", R"(a\)"}, {"emailAddress", "real@b"}}).get());
    EXPECT_EQ(name.common_name, R"(a\)");
    EXPECT_EQ(name.email_address, "real@b");
    EXPECT_EQ(lineOf(name), R"(CN=a\x5C, email=real@b)");
    EXPECT_EQ(CDistinguishedName::from(lineOf(name)).email_address, "real@b");
}

TEST(DescribedName, AttributesWithoutAFieldAreLeftOut) {
    const std::vector<Entry> name = {
        {"O", "Firm"}, {"organizationIdentifier", "VATDE-1"}, {"CN", "host"}, {"1.2.3.4.5", "odd"}};
    EXPECT_EQ(described(name), "O=Firm, CN=host");
    EXPECT_EQ(printedAndRead(name), "O=Firm, CN=host");
}

TEST(DescribedName, EveryAttributeOfASeveralfoldPartIsTaken) {
    const std::vector<Entry> name = {
        {"O", "Firm"}, {"CN", "host"}, {"emailAddress", "a@b", true}, {"OU", "u", true}};
    EXPECT_EQ(described(name), "O=Firm, OU=u, CN=host, email=a@b");
}

TEST(DescribedName, LineEndsAndZerosAreWrittenAsNumbers) {
    EXPECT_EQ(described({{"CN", std::string("a\nb\0c", 5)}}), R"(CN=a\x0Ab\x00c)");
}

TEST(DescribedName, ANameThatCannotBeWrittenIsEmptyAndLeavesNoError) {
    const X509NamePtr name = nameOf({{"O", "Firm"}, {"CN", std::string(1100000, 'x')}});
    ERR_clear_error();
    EXPECT_EQ(_subject_as_line(name.get()), "");
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(lineOf(describedName(name.get())), "");
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(lineOf(describedName(X509NamePtr(X509_NAME_new()).get())), "");
}

TEST(DescribedName, DescriptionsTellIt) {
    const keywarden::X509_T certificate(X509_new());
    X509_set_subject_name(certificate.get(), nameOf({{"O", "a, CN=evil"}, {"CN", "host"}}).get());
    X509_set_issuer_name(certificate.get(), nameOf({{"CN", "a/emailAddress=evil@b"}}).get());
    kwdata::CCertificateData data;
    static_cast<void>(keywarden::createCCertData(certificate, data));
    EXPECT_EQ(data.subject.common_name, "host");
    EXPECT_EQ(data.issuer.email_address, "");
}

}  // namespace
