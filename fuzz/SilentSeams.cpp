// Takes the places of the system log, of the device's configuration and of the program runner: millions of
// inputs neither fill a log nor start programs.
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "support/ConfigurationPath.h"
#include "support/Exec.h"
#include "support/Log.h"
#include "x509/MemoryWatch.h"

namespace {

// As the daemon does before anything else: else libcrypto's word for a name with a NUL in it, which is the
// one for want of memory, would be taken for that.
[[maybe_unused]] const bool areRequestsCounted = [] {
    keywarden::MemoryWatch::countRequests();
    return true;
}();

std::string& printedByPrograms() {
    static std::string text;
    return text;
}

}  // namespace

namespace fuzz {

void setProgramOutput(const std::string& printed) {
    printedByPrograms() = printed;
}

}  // namespace fuzz

namespace keywarden {

const char* daemonConfigurationPath() {
    static const std::string path = [] {
        std::string name = "/tmp/keyward-fuzz-XXXXXX";
        const int file = ::mkstemp(name.data());
        const std::string content =
            "keywardDirectory /nonexistent/store\nnotificationGroup root\n"
            "serviceConfigDirectory /nonexistent/services\nnamePipesDirectory /nonexistent/pipes\n"
            "daemonUser root\nscriptsDirectory /nonexistent\nlockFile /nonexistent/lock\n"
            "pidFile /nonexistent/pid\n";
        if (file < 0 || ::write(file, content.data(), content.size()) != ssize_t(content.size()))
            throw std::runtime_error("no configuration for the fuzzed code");
        ::close(file);
        return name;
    }();
    return path.c_str();
}

void Log::open() {}
bool Log::write(Severity /*severity*/, const std::string& /*message*/) {
    return true;
}
void Log::close() {}
std::atomic<bool> Log::s_open{true};

}  // namespace keywarden

namespace zlk {

Exec::Exec(const std::vector<std::string>& arguments, unsigned /*timeoutSeconds*/)
    : program_(arguments.at(0)) {
    output_.str(printedByPrograms());
}
Exec::Exec(const std::vector<std::string>& arguments, const std::string& /*input*/, unsigned timeoutSeconds)
    : Exec(arguments, timeoutSeconds) {}
std::stringstream& Exec::wholeOutput() {
    return output_;
}
std::string Exec::failureText() const {
    return {};
}

}  // namespace zlk
