#include "server/FailureTexts.h"

#include "support/Failure.h"

namespace keywarden {

std::string describeFailure(const FailureTexts& texts, const std::string& service) {
    const auto before = [&service](std::string_view prefix) { return std::string(prefix) + service + "' "; };
    return Failure::current().message(before(texts.daemon), before(texts.standard),
                                      std::string(texts.unknown) + service + "'.");
}

}  // namespace keywarden
