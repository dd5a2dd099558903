#include "testsupport/CapturedLog.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <ostream>

#include "support/Debug.h"

namespace {

std::mutex linesMutex;
std::vector<testsupport::LogLine> keptLines;
std::string failingBeginning;
int failuresLeft = 0;

}  // namespace

namespace keywarden {

std::atomic<bool> Log::s_open{false};

void Log::open() {
    s_open = true;
}

bool Log::write(Severity severity, const std::string& message) {
    {
        const std::lock_guard<std::mutex> guard(linesMutex);
        if (failuresLeft > 0 && message.rfind(failingBeginning, 0) == 0) {
            --failuresLeft;
            throw std::bad_alloc();
        }
        keptLines.push_back({severity, message});
    }
    debugTrace(message);
    return true;
}

void Log::close() {
    s_open = false;
}

}  // namespace keywarden

namespace testsupport {

void CapturedLog::clear() {
    const std::lock_guard<std::mutex> guard(linesMutex);
    keptLines.clear();
    failuresLeft = 0;
}

void CapturedLog::failFor(const std::string& beginning, int lines) {
    const std::lock_guard<std::mutex> guard(linesMutex);
    failingBeginning = beginning;
    failuresLeft = lines;
}

std::vector<LogLine> CapturedLog::lines() {
    const std::lock_guard<std::mutex> guard(linesMutex);
    return keptLines;
}

bool CapturedLog::contains(keywarden::Severity severity, const std::string& text) {
    return count(severity, text) != 0;
}

std::size_t CapturedLog::count(keywarden::Severity severity, const std::string& text) {
    const auto all = lines();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), LogLine{severity, text}));
}

bool CapturedLog::containsPart(const std::string& part) {
    const auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&part](const LogLine& line) { return line.text.find(part) != std::string::npos; });
}

std::string CapturedLog::dump() {
    std::string text;
    for (const LogLine& line : lines())
        text += std::to_string(line.severity) + " " + line.text + "\n";
    return text;
}

void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.severity << " \"" << line.text << '"';
}

}  // namespace testsupport
