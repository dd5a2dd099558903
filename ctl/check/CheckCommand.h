#pragma once

#include "ctl/ExitCode.h"

namespace CLI {
class App;
}

namespace keywardctl {

/// Adds the subcommand "check" to the command line. When it was called, `result` holds its exit code after
/// the command line has been parsed: Done, or Failed when something was found.
void addCheckCommand(CLI::App& app, ExitCode& result);

}  // namespace keywardctl
