#include "callbacks/BinaryServiceCallbacks.h"

#include <unistd.h>

#include <cstdint>
#include <stdexcept>

#include "support/Debug.h"
#include "support/Exec.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

}  // namespace

BinaryServiceCallbacks::BinaryServiceCallbacks(const std::string& serviceId, const std::string& scriptPath,
                                               std::uint32_t timeoutSeconds)
    : serviceId_(serviceId), script_(scriptPath), timeoutSeconds_(timeoutSeconds) {
    const std::string subject = "The callback " + scriptPath + " for the service " + serviceId;
    if (!Tools::fileExist(scriptPath))
        throw std::runtime_error(subject + " doesn't exist");
    if (::access(scriptPath.c_str(), X_OK) != 0)
        throw std::runtime_error(subject + " doesn't have executable right.");
}

void BinaryServiceCallbacks::started() {
    run({"start"});
}

void BinaryServiceCallbacks::stopped() {
    run({"stop"});
}

void BinaryServiceCallbacks::allStarted() {
    run({"allStarted"}, Trace::No);
}

void BinaryServiceCallbacks::newGeneratedCertificate(const std::string& id) {
    run({"server", "new", id});
}

void BinaryServiceCallbacks::updateValidityGeneratedCertificate(int validIn, int expireIn) {
    if (validIn > 0)
        run({"server", "validIn", std::to_string(validIn)});
    else if (expireIn > 0)
        run({"server", "expireIn", std::to_string(expireIn)});
    else  // widened first: the smallest int has no positive counterpart
        run({"server", "expireFrom", std::to_string(-std::int64_t{expireIn})});
}

void BinaryServiceCallbacks::newExternalCertificate(const std::string& store, const std::string& id) {
    run({store, "new", id});
}

void BinaryServiceCallbacks::revokedExternalCertificate(const std::string& store, const std::string& id) {
    run({store, "revoke", id});
}

void BinaryServiceCallbacks::revokedExternalCertificate(const std::string& store,
                                                        const std::vector<std::string>& ids) {
    if (ids.empty())
        return;
    std::vector<std::string> event{store, "revoke"};
    event.insert(event.end(), ids.begin(), ids.end());
    run(event);
}

void BinaryServiceCallbacks::run(const std::vector<std::string>& event, Trace trace) const {
    const std::string subject = "The callback " + script_ + " for the service " + serviceId_;
    std::vector<std::string> arguments{script_, serviceId_};
    arguments.insert(arguments.end(), event.begin(), event.end());
    const std::string failed = subject + " failed for the event '" + joined(event) + "': ";
    try {
        zlk::Exec script(arguments, timeoutSeconds_);
        if (trace == Trace::Yes) {
            debugTrace(script.standardOutput().str());
            debugTrace(script.standardError().str());
        }
        // For whoever looks after the script: nothing here depends on how it ended.
        if (const std::string failure = script.failureText(); !failure.empty())
            Log::write(SeverityWarning, failed + failure);
    } catch (const zlk::ExecTimeout&) {
        Log::write(SeverityError, failed + "it did not end within " + std::to_string(timeoutSeconds_) +
                                      " seconds and was killed");
    } catch (...) {
        Log::write(SeverityError, subject + " could not be run: " + Failure::current().text());
    }
}

}  // namespace keywarden
