#include <CLI/CLI.hpp>

#include <memory>
#include <set>

#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Output.h"
#include "ctl/StatusReport.h"
#include "ctl/Table.h"

namespace keywardctl {

namespace {

struct StatusOptions {
    std::string service;
    std::string colour = "auto";
    bool json = false;
};

// Services share what is to be said of the daemon; it is said once.
bool tellProblems(const std::vector<ServiceView>& views) {
    std::set<std::string> told;
    for (const ServiceView& view : views) {
        for (const std::string& problem : view.problems) {
            if (told.insert(problem).second)
                note(problem);
        }
    }
    return !told.empty();
}

ExitCode status(const StatusOptions& options, const Deadline& deadline) {
    const Device device;
    if (!options.service.empty())
        device.require(options.service);
    std::vector<ServiceView> views;
    for (const std::string& service :
         options.service.empty() ? device.services() : std::vector{options.service})
        views.push_back(viewOf(device, service));
    for (ServiceView& view : views)
        askState(view, device, deadline);
    const std::int64_t now = keywarden::Clock::now();
    const bool daemonRuns = device.daemon().has_value();
    print(options.json ? statusJson(views, now, daemonRuns)
                       : statusText(views, now, wantsColours(options.colour)));
    const bool troubled = tellProblems(views);
    if (!daemonRuns) {
        if (!troubled)
            note("the daemon is not running");
        return ExitCode::DaemonNotRunning;
    }
    return troubled ? ExitCode::Failed : ExitCode::Done;
}

}  // namespace

void addStatusCommand(CLI::App& app, Context& context) {
    const auto options = std::make_shared<StatusOptions>();
    CLI::App* const command =
        app.add_subcommand("status", "One line a service: how it and its certificate are");
    command->add_option("SERVICE", options->service, "Only this one");
    command->add_flag("--json", options->json, "As JSON");
    command->add_option("--color", options->colour, "auto (the default), always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}));
    command->callback([options, &context] { context.result = status(*options, context.deadline()); });
}

}  // namespace keywardctl
