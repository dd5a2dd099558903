#include "cnf/CDistinguishedName.h"

#include <array>
#include <string_view>
#include <utility>

namespace kwdata {

const std::string CDistinguishedName::DEFAULT_COUNTRY_CODE = "US";
const std::string CDistinguishedName::DEFAULT_STATE = "NC";
const std::string CDistinguishedName::DEFAULT_CITY = "Millbrook";
const std::string CDistinguishedName::DEFAULT_COMPANY_NAME = "Zelkor Corporation";
const std::string CDistinguishedName::DEFAULT_DIVISION_NAME = "Electrical Division";
const std::string CDistinguishedName::DEFAULT_COMMON_NAME = "192.168.1.18";
const std::string CDistinguishedName::DEFAULT_EMAIL_ADDR = "contact@zelkor.example";

namespace {

// Attributes that OpenSSL's one-line form glues to the item before them: it only starts a new item at keys of
// one or two capital letters.
constexpr std::array<std::string_view, 14> kGluedKeys = {
    "emailAddress",
    "serialNumber",
    "street",
    "postalCode",
    "title",
    "name",
    "initials",
    "dnQualifier",
    "UID",
    "pseudonym",
    "generationQualifier",
    "role",
    "x500UniqueIdentifier",
    "unstructuredName",
};

constexpr std::string_view kSeparator = ", ";

bool isCapital(char letter) {
    return letter >= 'A' && letter <= 'Z';
}

bool isGluedKey(std::string_view key) {
    for (const std::string_view known : kGluedKeys) {
        if (key == known) {
            return true;
        }
    }
    return false;
}

bool isItemKey(std::string_view key) {
    const bool capitals =
        (key.size() == 1 && isCapital(key[0])) || (key.size() == 2 && isCapital(key[0]) && isCapital(key[1]));
    return capitals || key == "email" || isGluedKey(key);
}

// The longest key is shorter; a bound keeps a hostile name from costing its length squared.
constexpr std::size_t kKeyBound = 24;

std::string_view keyAt(std::string_view text, std::size_t position) {
    const std::string_view start = text.substr(position, kKeyBound);
    const std::size_t equals = start.find('=');
    return equals == std::string_view::npos ? std::string_view() : start.substr(0, equals);
}

// Where the separator that ends the value at `position` stands. A comma or slash that no key follows belongs
// to the value.
std::size_t endOfValue(std::string_view text, std::size_t position) {
    for (std::size_t at = position; at < text.size(); ++at) {
        if (text.compare(at, kSeparator.size(), kSeparator) == 0 &&
            isItemKey(keyAt(text, at + kSeparator.size()))) {
            return at;
        }
        if (text[at] == '/' && isGluedKey(keyAt(text, at + 1))) {
            return at;
        }
    }
    return text.size();
}

void append(std::string& text, const char* key, const std::string& value) {
    text += (text.empty() ? "" : ", ") + std::string(key) + value;
}

void appendUnlessEmpty(std::string& text, const char* key, const std::string& value) {
    if (!value.empty()) {
        append(text, key, value);
    }
}

// A second value of a single field does not replace the first.
void keepFirst(std::string& field, std::string_view value) {
    if (field.empty()) {
        field = value;
    }
}

void assign(CDistinguishedName& name, std::string_view key, std::string_view value) {
    if (key == "C") {
        keepFirst(name.country, value);
    } else if (key == "ST") {
        keepFirst(name.state, value);
    } else if (key == "L") {
        keepFirst(name.city, value);
    } else if (key == "O") {
        keepFirst(name.company, value);
    } else if (key == "OU") {
        name.divisions.emplace_back(value);
    } else if (key == "CN") {
        keepFirst(name.common_name, value);
    } else if (key == "email" || key == "emailAddress") {
        keepFirst(name.email_address, value);
    }
}

}  // namespace

CDistinguishedName::CDistinguishedName(std::string countryName, std::string stateName, std::string cityName,
                                       std::string companyName, std::vector<std::string> divisionNames,
                                       std::string commonName, std::string emailAddress)
    : country(std::move(countryName)),
      state(std::move(stateName)),
      city(std::move(cityName)),
      company(std::move(companyName)),
      divisions(std::move(divisionNames)),
      common_name(std::move(commonName)),
      email_address(std::move(emailAddress)) {}

void CDistinguishedName::setToDefault() {
    *this = CDistinguishedName(DEFAULT_COUNTRY_CODE, DEFAULT_STATE, DEFAULT_CITY, DEFAULT_COMPANY_NAME,
                               {DEFAULT_DIVISION_NAME}, DEFAULT_COMMON_NAME, DEFAULT_EMAIL_ADDR);
}

void CDistinguishedName::clear() {
    *this = CDistinguishedName();
}

void CDistinguishedName::to(std::string& text) const {
    text.clear();
    appendUnlessEmpty(text, "C=", country);
    appendUnlessEmpty(text, "ST=", state);
    appendUnlessEmpty(text, "L=", city);
    appendUnlessEmpty(text, "O=", company);
    for (const std::string& division : divisions) {
        append(text, "OU=", division);
    }
    appendUnlessEmpty(text, "CN=", common_name);
    appendUnlessEmpty(text, "email=", email_address);
}

CDistinguishedName CDistinguishedName::from(const std::string& text) {
    CDistinguishedName name;
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t end = endOfValue(text, position);
        const std::string_view item = std::string_view(text).substr(position, end - position);
        const std::size_t equals = item.find('=');
        if (equals != std::string_view::npos) {
            assign(name, item.substr(0, equals), item.substr(equals + 1));
        }
        position = end + (end < text.size() && text[end] == '/' ? 1 : kSeparator.size());
    }
    return name;
}

}  // namespace kwdata
