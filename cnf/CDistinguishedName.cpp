#include "cnf/CDistinguishedName.h"

#include <algorithm>
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
// one or two capital letters. Numbers in dots, which stand for attributes without a name, are glued too.
constexpr std::array<std::string_view, 24> kGluedKeys = {
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
    "unstructuredAddress",
    "organizationIdentifier",
    "businessCategory",
    "jurisdictionL",
    "jurisdictionST",
    "jurisdictionC",
    "description",
    "telephoneNumber",
    "houseIdentifier",
    "dmdName",
};

constexpr std::string_view kSeparator = ", ";

bool isCapital(char letter) {
    return letter >= 'A' && letter <= 'Z';
}

bool isDotted(std::string_view key) {
    return key.find('.') != std::string_view::npos &&
           key.find_first_not_of("0123456789.") == std::string_view::npos;
}

bool isGluedKey(std::string_view key) {
    return isDotted(key) || std::find(kGluedKeys.begin(), kGluedKeys.end(), key) != kGluedKeys.end();
}

bool isItemKey(std::string_view key) {
    const bool capitals =
        (key.size() == 1 && isCapital(key[0])) || (key.size() == 2 && isCapital(key[0]) && isCapital(key[1]));
    return capitals || key == "email" || isGluedKey(key);
}

// The longest key is shorter; a bound keeps a hostile name from costing its length squared.
constexpr std::size_t kKeyBound = 80;

std::string_view keyAt(std::string_view text, std::size_t position) {
    const std::string_view start = text.substr(position, kKeyBound);
    const std::size_t equals = start.find('=');
    return equals == std::string_view::npos ? std::string_view() : start.substr(0, equals);
}

// A comma or slash that no key follows belongs to the value.
bool isSeparator(std::string_view text, std::size_t at) {
    if (text[at] == '/')
        return isGluedKey(keyAt(text, at + 1));
    return text.compare(at, kSeparator.size(), kSeparator) == 0 &&
           isItemKey(keyAt(text, at + kSeparator.size()));
}

// Where the separator that ends the value at `position` stands. One behind a backslash belongs to the value.
std::size_t endOfValue(std::string_view text, std::size_t position) {
    for (std::size_t at = position; at < text.size(); ++at) {
        const bool isEscaped = at > position && text[at - 1] == '\\';
        if (!isEscaped && isSeparator(text, at)) {
            return at;
        }
    }
    return text.size();
}

// A backslash at the end would escape the separator that follows: it is written as OpenSSL writes other
// characters.
std::string escaped(std::string_view value) {
    std::string text;
    for (std::size_t at = 0; at < value.size(); ++at) {
        if (isSeparator(value, at)) {
            text += '\\';
        }
        text += value[at];
    }
    return !text.empty() && text.back() == '\\' ? text + "x5C" : text;
}

std::string unescaped(std::string_view text) {
    std::string value;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool escapes = text[at] == '\\' && at + 1 < text.size() && isSeparator(text, at + 1);
        if (!escapes) {
            value += text[at];
        }
    }
    return value;
}

void append(std::string& text, const char* key, const std::string& value) {
    text += (text.empty() ? "" : ", ") + std::string(key) + escaped(value);
}

void appendUnlessEmpty(std::string& text, const char* key, const std::string& value) {
    if (!value.empty()) {
        append(text, key, value);
    }
}

void keepFirst(std::string& field, std::string_view value) {
    if (field.empty()) {
        field = value;
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

void CDistinguishedName::add(std::string_view key, std::string_view text) {
    const std::string value = unescaped(text);
    if (key == "C") {
        keepFirst(country, value);
    } else if (key == "ST") {
        keepFirst(state, value);
    } else if (key == "L") {
        keepFirst(city, value);
    } else if (key == "O") {
        keepFirst(company, value);
    } else if (key == "OU") {
        divisions.push_back(value);
    } else if (key == "CN") {
        keepFirst(common_name, value);
    } else if (key == "email" || key == "emailAddress") {
        keepFirst(email_address, value);
    }
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
            name.add(item.substr(0, equals), item.substr(equals + 1));
        }
        position = end + (end < text.size() && text[end] == '/' ? 1 : kSeparator.size());
    }
    return name;
}

}  // namespace kwdata
