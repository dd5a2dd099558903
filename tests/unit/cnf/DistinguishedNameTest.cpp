#include <gtest/gtest.h>

#include "cnf/CDistinguishedName.h"

namespace {

using kwdata::CDistinguishedName;

std::string lineOf(const CDistinguishedName& name) {
    std::string text = "overwritten";
    name.to(text);
    return text;
}

void expectSame(const CDistinguishedName& one, const CDistinguishedName& other) {
    EXPECT_EQ(one.country, other.country);
    EXPECT_EQ(one.state, other.state);
    EXPECT_EQ(one.city, other.city);
    EXPECT_EQ(one.company, other.company);
    EXPECT_EQ(one.divisions, other.divisions);
    EXPECT_EQ(one.common_name, other.common_name);
    EXPECT_EQ(one.email_address, other.email_address);
}

TEST(DistinguishedName, DefaultsAreTheStatedOnes) {
    CDistinguishedName name;
    name.setToDefault();
    EXPECT_EQ(name.country, "US");
    EXPECT_EQ(name.state, "NC");
    EXPECT_EQ(name.city, "Millbrook");
    EXPECT_EQ(name.company, "Zelkor Corporation");
    EXPECT_EQ(name.divisions, std::vector<std::string>{"Electrical Division"});
    EXPECT_EQ(name.common_name, "192.168.1.18");
    EXPECT_EQ(name.email_address, CDistinguishedName::DEFAULT_EMAIL_ADDR);
    EXPECT_NE(name.email_address.find('@'), std::string::npos);
}

TEST(DistinguishedName, ClearEmptiesEveryField) {
    CDistinguishedName name;
    name.setToDefault();
    name.clear();
    expectSame(name, CDistinguishedName());
    EXPECT_EQ(lineOf(name), "");
}

TEST(DistinguishedName, SevenValuesAreCopiedInOrder) {
    const CDistinguishedName name("FR", "state", "city", "company", {"one", "two"}, "cn", "a@b");
    EXPECT_EQ(name.country, "FR");
    EXPECT_EQ(name.state, "state");
    EXPECT_EQ(name.city, "city");
    EXPECT_EQ(name.company, "company");
    EXPECT_EQ(name.divisions, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(name.common_name, "cn");
    EXPECT_EQ(name.email_address, "a@b");
}

TEST(DistinguishedName, EveryFieldIsWrittenInOrder) {
    const CDistinguishedName name("FR", "Isere", "Ville", "Firm", {"one", "two"}, "host", "a@b");
    EXPECT_EQ(lineOf(name), "C=FR, ST=Isere, L=Ville, O=Firm, OU=one, OU=two, CN=host, email=a@b");
}

TEST(DistinguishedName, WithoutEmailThereIsNoItemAndNoTrailingSeparator) {
    const CDistinguishedName name("FR", "Isere", "Ville", "Firm", {"one"}, "host", "");
    EXPECT_EQ(lineOf(name), "C=FR, ST=Isere, L=Ville, O=Firm, OU=one, CN=host");
}

TEST(DistinguishedName, EmptyFieldsAreLeftOutWithTheirSeparators) {
    EXPECT_EQ(lineOf(CDistinguishedName("", "Isere", "", "", {}, "host", "")), "ST=Isere, CN=host");
    EXPECT_EQ(lineOf(CDistinguishedName("FR", "", "", "", {}, "", "")), "C=FR");
    EXPECT_EQ(lineOf(CDistinguishedName("", "", "", "", {}, "", "a@b")), "email=a@b");
}

TEST(DistinguishedName, AnEmptyDivisionIsWritten) {
    EXPECT_EQ(lineOf(CDistinguishedName("FR", "", "", "", {""}, "host", "")), "C=FR, OU=, CN=host");
    EXPECT_EQ(lineOf(CDistinguishedName("", "", "", "", {"", ""}, "", "")), "OU=, OU=");
}

TEST(DistinguishedName, ItsOwnFormIsReadBack) {
    const CDistinguishedName full("FR", "Isere", "Ville", "Firm, Inc.", {"one", "", "a/b"}, "host", "a@b");
    expectSame(CDistinguishedName::from(lineOf(full)), full);
    expectSame(CDistinguishedName::from(""), CDistinguishedName());
    const CDistinguishedName divisionsOnly("", "", "", "", {"", ""}, "", "");
    expectSame(CDistinguishedName::from(lineOf(divisionsOnly)), divisionsOnly);
}

TEST(DistinguishedName, TheOneLineFormWithTheAddressInFrontIsRead) {
    expectSame(CDistinguishedName::from("emailAddress=a@b, C=US, ST=NC, L=City, O=Firm, OU=Div, CN=host"),
               CDistinguishedName("US", "NC", "City", "Firm", {"Div"}, "host", "a@b"));
}

TEST(DistinguishedName, AnAddressGluedToTheCommonNameIsRead) {
    expectSame(CDistinguishedName::from("C=US, CN=h/emailAddress=a@b"),
               CDistinguishedName("US", "", "", "", {}, "h", "a@b"));
}

TEST(DistinguishedName, ACommaInsideAValueIsKept) {
    expectSame(CDistinguishedName::from("O=Firm, Inc., OU=R, D, CN=host, with a comma"),
               CDistinguishedName("", "", "", "Firm, Inc.", {"R, D"}, "host, with a comma", ""));
}

TEST(DistinguishedName, ASlashInsideAValueIsKept) {
    expectSame(CDistinguishedName::from("O=a/b, CN=http://h/path=x"),
               CDistinguishedName("", "", "", "a/b", {}, "http://h/path=x", ""));
}

TEST(DistinguishedName, AnEqualsSignInsideAValueIsKept) {
    expectSame(CDistinguishedName::from("O=a=b, CN=x=y"),
               CDistinguishedName("", "", "", "a=b", {}, "x=y", ""));
}

TEST(DistinguishedName, UnknownAttributesAreLeftOut) {
    expectSame(CDistinguishedName::from("DC=org, CN=h/serialNumber=5/UID=me, SN=name, O=Firm"),
               CDistinguishedName("", "", "", "Firm", {}, "h", ""));
}

TEST(DistinguishedName, AnEscapedSeparatorBelongsToTheValue) {
    expectSame(CDistinguishedName::from(R"(CN=a\/emailAddress=evil@b)"),
               CDistinguishedName("", "", "", "", {}, "a/emailAddress=evil@b", ""));
    expectSame(CDistinguishedName::from(R"(O=a\, CN=evil, CN=host/emailAddress=a@b)"),
               CDistinguishedName("", "", "", "a, CN=evil", {}, "host", "a@b"));
    expectSame(CDistinguishedName::from(R"(O=a\/b, CN=http:\/\/h)"),
               CDistinguishedName("", "", "", R"(a\/b)", {}, R"(http:\/\/h)", ""));
}

TEST(DistinguishedName, AValueThatReadsLikeItemsIsWrittenAndReadBackAsOne) {
    const CDistinguishedName name("", "", "", "a, CN=evil, OU=evil", {R"(b\, C=XX)", "c, d"},
                                  "h/emailAddress=evil@b/1.2.3=x", "");
    EXPECT_EQ(lineOf(name), R"(O=a\, CN=evil\, OU=evil, OU=b\\, C=XX, OU=c, d, )"
                            R"(CN=h\/emailAddress=evil@b\/1.2.3=x)");
    expectSame(CDistinguishedName::from(lineOf(name)), name);
}

TEST(DistinguishedName, ABackslashAtTheEndOfAValueHidesNoItem) {
    const CDistinguishedName name("", "", "", R"(a\)", {R"(b\\)"}, "host", "");
    EXPECT_EQ(lineOf(name), R"(O=a\x5C, OU=b\\x5C, CN=host)");
    EXPECT_EQ(CDistinguishedName::from(lineOf(name)).common_name, "host");
}

TEST(DistinguishedName, AttributesWithoutAFieldDoNotStickToTheOneBefore) {
    expectSame(
        CDistinguishedName::from("O=Firm/organizationIdentifier=VATDE-1, CN=h/1.2.3.4=x/jurisdictionC=DE"),
        CDistinguishedName("", "", "", "Firm", {}, "h", ""));
}

TEST(DistinguishedName, TheFirstOfTwoCommonNamesIsKept) {
    EXPECT_EQ(CDistinguishedName::from("CN=first, CN=second").common_name, "first");
}

TEST(DistinguishedName, TextWithoutItemsGivesAnEmptyName) {
    expectSame(CDistinguishedName::from("nothing here"), CDistinguishedName());
    expectSame(CDistinguishedName::from(", , ,/=/="), CDistinguishedName());
    expectSame(CDistinguishedName::from(std::string(3, '\0')), CDistinguishedName());
}

TEST(DistinguishedName, AVeryLongNameIsReadInReasonableTime) {
    const std::string slashes(2000000, '/');
    EXPECT_EQ(CDistinguishedName::from("CN=" + slashes).common_name, slashes);
}

}  // namespace
