#include "ctl/check/CheckCommand.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "ctl/Problem.h"
#include "ctl/check/Checker.h"

namespace keywardctl {

namespace {

struct Options {
    std::vector<std::string> services;
    bool json = false;
};

ExitCode runCheck(const Options& options) {
    // The daemon's folder: a path that is relative means the same to both.
    if (::chdir("/") != 0)
        throw Problem(ExitCode::Failed, fileProblem("cannot enter the folder", "/", errno));
    const check::Report report = check::checkDevice(options.services);
    std::cout << (options.json ? reportJson(report) : reportText(report)) << std::flush;
    return report.isEmpty() && std::cout ? ExitCode::Done : ExitCode::Failed;
}

}  // namespace

void addCheckCommand(CLI::App& app, ExitCode& result) {
    const auto options = std::make_shared<Options>();
    CLI::App* const command = app.add_subcommand(
        "check", "Read the configuration as the daemon would and name what would not work");
    command->add_option("SERVICE", options->services, "Look at these services only; without one, at all");
    command->add_flag("--json", options->json, "Print the findings as JSON");
    command->callback([options, &result] { result = runCheck(*options); });
}

}  // namespace keywardctl
