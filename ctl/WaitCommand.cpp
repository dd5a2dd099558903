#include <CLI/CLI.hpp>

#include <memory>

#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/HeldSignals.h"
#include "ctl/Output.h"
#include "ctl/Problem.h"
#include "ctl/Stores.h"

namespace keywardctl {

namespace {

constexpr std::int64_t kStandardSeconds = 300;
// The folders of a store may be entered but not listed, and a watch needs the latter: so they are looked at.
constexpr int kLookMilliseconds = 200;

struct WaitOptions {
    std::string service;
    bool fresh = false;
};

// A certificate that is being replaced has no files for a moment.
std::optional<ActiveCertificate> lookAgain(const std::string& service) {
    try {
        return activeCertificateOf(service);
    } catch (const Problem&) {
        return std::nullopt;
    }
}

// A new certificate for the same subject has the same id: the certificates themselves are compared.
void waitFresh(const std::string& service, const Deadline& deadline) {
    const Device device;
    device.require(service);
    const auto first = activeCertificateOf(service);
    const HeldSignals signals;
    for (;;) {
        const bool daemonRuns = device.daemon().has_value();
        const auto now = lookAgain(service);
        if (now && (!first || now->pem != first->pem)) {
            print(now->id + "\n");
            return;
        }
        if (!daemonRuns)
            device.throwNotRunning("nobody will make a certificate");
        if (deadline.isOver())
            throw Problem(ExitCode::Failed, "the service '" + service + "' got no new certificate within " +
                                                std::to_string(deadline.seconds()) + " s");
        signals.sleep(deadline.slice(kLookMilliseconds));
    }
}

}  // namespace

void addWaitCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<WaitOptions>();
    CLI::App* const command = app.add_subcommand("wait", "Wait for something to happen to a service");
    command->add_option("SERVICE", options->service, "The service")->required();
    command->add_flag("--fresh", options->fresh, "Until it gets its next certificate (at most 300 s)")
        ->required();
    command->callback(
        [options, &context] { waitFresh(options->service, context.deadline(kStandardSeconds)); });
}

}  // namespace keywardctl
