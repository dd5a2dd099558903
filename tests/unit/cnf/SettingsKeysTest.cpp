// Every row of the table of the settings' keys against the reader of a settings file.
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "CnfFixture.h"
#include "cnf/CnfFileConfiguration.h"
#include "config/ConfigKeys.h"

namespace {

using keywarden::CnfFileConfiguration;
using keywarden::KeyKind;
using keywarden::KeyRow;
using keywarden::SettingsKey;

std::string extensionOf(const kwdata::CCertificateData& data, const std::string& name) {
    for (const kwdata::v3Ext& extension : data.v3Extention) {
        if (extension.obj_id == name)
            return extension.short_name;
    }
    throw std::logic_error("no extension " + name);
}

/// What has arrived of the key. It has no default: a key without its field does not compile.
std::string fieldOf(const kwdata::CCertificateData& data, SettingsKey key) {
    switch (key) {
        case SettingsKey::KeyType:
            return data.public_key_type;
        case SettingsKey::Bits:
            return std::to_string(data.public_key_size_bits);
        case SettingsKey::Digest:
            return data.signatureAlgorithm_type;
        case SettingsKey::CommonName:
        case SettingsKey::CommonNameScript:
            return data.subject.common_name;
        case SettingsKey::Country:
            return data.subject.country;
        case SettingsKey::State:
            return data.subject.state;
        case SettingsKey::City:
            return data.subject.city;
        case SettingsKey::Company:
            return data.subject.company;
        case SettingsKey::Division:
            return data.subject.divisions.at(0);
        case SettingsKey::EmailAddress:
            return data.subject.email_address;
        case SettingsKey::BasicConstraints:
            return extensionOf(data, "basicConstraints");
        case SettingsKey::SubjectKeyIdentifier:
            return extensionOf(data, "subjectKeyIdentifier");
        case SettingsKey::ExtendedKeyUsage:
            return extensionOf(data, "extendedKeyUsage");
        case SettingsKey::KeyUsage:
            return extensionOf(data, "keyUsage");
        case SettingsKey::End:
            break;
    }
    throw std::logic_error("no key of a settings file");
}

class SettingsKeys : public CnfFixture {
  protected:
    /// The field after a file with that line alone, or with none.
    [[nodiscard]] std::string read(const KeyRow& row, const std::string& value) const {
        const std::string line = value.empty() ? "" : std::string(row.name) + " " + value + "\n";
        const CnfFileConfiguration configuration(settings(line));
        return fieldOf(configuration.getCCertificateData(), static_cast<SettingsKey>(row.place));
    }

    /// A value for the key, and what has to arrive of it.
    [[nodiscard]] std::pair<std::string, std::string> sampleOf(const KeyRow& row) const {
        if (row.kind == KeyKind::Path)
            return {script("printf 'its output'"), "its output"};
        if (row.kind == KeyKind::Number)
            return {std::to_string(row.highest), std::to_string(row.highest)};
        return {"some value", "some value"};
    }
};

TEST_F(SettingsKeys, ANameStandsForOneRowOnly) {
    std::set<std::string> names;
    for (const KeyRow& row : keywarden::settingsKeys())
        EXPECT_TRUE(names.emplace(row.name).second) << row.name;
}

TEST_F(SettingsKeys, WithoutItsKeyAFieldIsWhatTheTableSays) {
    for (const KeyRow& row : keywarden::settingsKeys())
        EXPECT_EQ(read(row, ""), row.kind == KeyKind::Number ? std::to_string(row.absent) : "") << row.name;
}

TEST_F(SettingsKeys, TheValueOfAKeyArrives) {
    for (const KeyRow& row : keywarden::settingsKeys()) {
        const auto [value, expected] = sampleOf(row);
        EXPECT_EQ(read(row, value), expected) << row.name;
    }
}

TEST_F(SettingsKeys, ANumberIsTakenWhateverItIs) {
    for (const KeyRow& row : keywarden::settingsKeys()) {
        if (row.kind != KeyKind::Number)
            continue;
        EXPECT_EQ(row.bad, keywarden::BadValue::Taken) << row.name;
        EXPECT_EQ(read(row, "16385"), "16385") << row.name;
        EXPECT_EQ(read(row, "many"), "0") << row.name;
    }
}

}  // namespace
