#include <CLI/CLI.hpp>

#include <memory>

#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Output.h"
#include "ctl/Prometheus.h"

namespace keywardctl {

namespace {

// The absence of the daemon is a result like any other here: it is in the file.
void exportPrometheus(const std::string& path, const Deadline& deadline) {
    const Device device;
    std::vector<ServiceView> views;
    for (const std::string& service : device.services())
        views.push_back(viewOf(device, service));
    const bool daemonRuns = device.daemon().has_value();
    for (ServiceView& view : views) {
        const std::size_t known = view.problems.size();
        askState(view, device, deadline);
        if (!daemonRuns)
            view.problems.resize(known);
        for (const std::string& problem : view.problems)
            note(view.service + ": " + problem);
    }
    writeOutput(path, metricsOf(views, keywarden::Clock::now(), daemonRuns));
}

}  // namespace

void addExportCommand(CLI::App& app, Context& context) {
    CLI::App* const command = app.add_subcommand("export", "Write what monitoring reads");
    command->require_subcommand(1);
    const auto path = std::make_shared<std::string>();
    CLI::App* const prometheus =
        command->add_subcommand("prometheus", "A file for the textfile collector of Prometheus");
    prometheus->add_option("-o,--output", *path, "The file, replaced at one go");
    prometheus->callback([path, &context] { exportPrometheus(*path, context.deadline()); });
}

}  // namespace keywardctl
