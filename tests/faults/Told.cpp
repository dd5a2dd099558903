#include "Told.h"

#include <fstream>
#include <functional>
#include <sstream>

#include "testsupport/TestDevice.h"

namespace faults {

namespace {

std::string path() {
    return testsupport::TestDevice::get().sandbox().path("told");
}

}  // namespace

std::string eventOf(const std::string& word, const std::string& content) {
    return word + " " + std::to_string(std::hash<std::string>()(content));
}

void recordTold(const std::string& event) {
    std::ofstream(path(), std::ios::app) << event << std::endl;
}

std::set<std::string> told() {
    std::set<std::string> events;
    std::istringstream lines(toldText());
    for (std::string line; std::getline(lines, line);)
        events.insert(line);
    return events;
}

std::string untold(const std::string& event) {
    return told().count(event) != 0 ? std::string() : "not told: " + event + "\n";
}

std::string toldText() {
    return testsupport::Sandbox::exists(path()) ? testsupport::Sandbox::read(path()) : std::string();
}

void setToldText(const std::string& text) {
    static_cast<void>(testsupport::TestDevice::get().sandbox().write("told", text));
}

}  // namespace faults
