#include "check/CheckCommand.h"

#include <CLI/CLI.hpp>

namespace keywardctl {

void addCheckCommand(CLI::App& app, ExitCode& result) {
    app.add_subcommand("check", "Read the configuration as the daemon would and name what would not work")
        ->callback([&result] { result = ExitCode::Failed; });
}

}  // namespace keywardctl
