// Configuration text in each of its readers: daemon, service, request settings.
#include <sstream>
#include <stdexcept>

#include "config/ConfigValues.h"
#include "config/DaemonConfiguration.h"
#include "fuzz/Fuzz.h"
#include "support/Tools.h"

using keywarden::ConfigValues;
using keywarden::DaemonConfiguration;
using keywarden::KeyKind;
using keywarden::KeyRow;
using keywarden::Tools;

namespace {

void readNumbers(const ConfigValues& values, const KeyRow& key) {
    const std::int32_t lenient = values.lenientNumber(key);
    fuzz::require(lenient == key.absent || (lenient >= key.lowest && lenient <= key.highest),
                  "a number that counts is one that its key allows");
    try {
        (void)values.number(key);
        (void)values.shortNumber(key);
    } catch (const std::logic_error&) {
        // no number, or one that does not fit
    }
}

void readDaemonFile(const std::string& text) {
    try {
        const DaemonConfiguration configuration(fuzz::fileWith(text));
        fuzz::require(!configuration.getDaemonUser().empty(), "a configuration that stands has a user");
    } catch (const std::exception& refused) {
        fuzz::require(*refused.what() != '\0', "a refusal has a text");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::textOf(data, size);
    const std::string cleaned = Tools::cleanConfigLine(text);
    fuzz::require(Tools::cleanConfigLine(cleaned) == cleaned, "a clean line stays as it is");
    (void)Tools::getKeyAndValue(text);

    std::istringstream daemonText(text);
    std::istringstream serviceText(text);
    std::istringstream settingsText(text);
    (void)Tools::getMapKeyValue(settingsText);
    (void)Tools::getConfigMap(daemonText);
    const ConfigValues values(Tools::getConfigFileMap(serviceText));
    for (const KeyRow& key : keywarden::serviceKeys()) {
        if (key.kind == KeyKind::Number)
            readNumbers(values, key);
    }
    readDaemonFile(text);
    return 0;
}
