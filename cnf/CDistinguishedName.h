#pragma once

#include <string>
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

    /// Writes "C=.., ST=.., L=.., O=.., OU=.., CN=.., email=.." into `text`; empty fields are left out, every
    /// division is written.
    void to(std::string& text) const;
    /// Reads the form of to() and OpenSSL's one-line form ("emailAddress=", "CN=h/emailAddress=a@b"); a comma
    /// inside a value is kept. What it does not know is left out; never throws.
    static CDistinguishedName from(const std::string& text);
};

}  // namespace kwdata
