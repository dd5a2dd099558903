#pragma once

#include <set>
#include <string>

namespace faults {

/// What the owner has been told of since the operation began, over all runs: on no disk that can lose it.

/// "<word> <what tells the content from any other>"
[[nodiscard]] std::string eventOf(const std::string& word, const std::string& content);
void recordTold(const std::string& event);
[[nodiscard]] std::set<std::string> told();
/// "not told: <event>\n" unless it was.
[[nodiscard]] std::string untold(const std::string& event);

/// All of it as text, to keep it and to put it back.
[[nodiscard]] std::string toldText();
void setToldText(const std::string& text);

}  // namespace faults
