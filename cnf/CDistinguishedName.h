#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kwdata {

/// A subject or issuer name (RFC 5280, 4.1.2.4), as request settings and descriptions speak of it.
struct CDistinguishedName {
    static const std::string DEFAULT_COUNTRY_CODE;
    static const std::string DEFAULT_STATE;
    static const std::string DEFAULT_CITY;
    static const std::string DEFAULT_COMPANY_NAME;
    static const std::string DEFAULT_DIVISION_NAME;
    static const std::string DEFAULT_COMMON_NAME;
    static const std::string DEFAULT_EMAIL_ADDR;

    std::string country;
    std::string state;
    std::string city;
    std::string company;
    std::vector<std::string> divisions;
    std::string common_name;
    std::string email_address;

    CDistinguishedName() = default;  ///< every field empty
    CDistinguishedName(std::string country, std::string state, std::string city, std::string company,
                       std::vector<std::string> divisions, std::string commonName, std::string emailAddress);

    void setToDefault();
    void clear();

    /// Takes one attribute, its value as a one-line form writes it. A second value of a field other than the
    /// divisions does not replace the first; an unknown key is left out.
    void add(std::string_view key, std::string_view value);

    /// Writes "C=.., ST=.., L=.., O=.., OU=.., CN=.., email=.." into `text`; empty fields are left out, every
    /// division is written. A value that holds what would read as a further item ("a, CN=b") has a backslash
    /// before it ("a\, CN=b").
    void to(std::string& text) const;
    /// Reads the form of to() and OpenSSL's one-line form ("emailAddress=", "CN=h/emailAddress=a@b"); a comma
    /// inside a value is kept, and whatever follows a backslash. What it does not know is left out; never
    /// throws. OpenSSL does not escape a comma: a name that is at hand as such is better read by
    /// describedName() of x509/SubjectName.h.
    static CDistinguishedName from(const std::string& text);
};

}  // namespace kwdata
