#pragma once

#include "ctl/ExitCode.h"

namespace keywardctl {

/// Reads the command line and does what it says. Throws Interrupted and what the commands throw beside
/// Problem, which is told on standard error.
[[nodiscard]] ExitCode runCommandLine(int argc, char** argv);

}  // namespace keywardctl
