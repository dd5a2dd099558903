#pragma once

#include <cstdint>

#include "ctl/Deadline.h"
#include "ctl/ExitCode.h"

namespace CLI {
class App;
}

namespace keywardctl {

/// What the commands share: the options in front of them and the exit code behind them.
struct Context {
    static constexpr std::int64_t kStandardSeconds = 60;

    std::int64_t timeoutSeconds = 0;  ///< 0: not given
    ExitCode result = ExitCode::Done;

    [[nodiscard]] Deadline deadline(std::int64_t standardSeconds = kStandardSeconds) const {
        return Deadline(timeoutSeconds > 0 ? timeoutSeconds : standardSeconds);
    }
};

// Each adds its subcommands, which run when the command line has been read. They throw Problem and
// Interrupted; `context` must outlive the command line.
void addStatusCommand(CLI::App& app, Context& context);
void addShowCommand(CLI::App& app, Context& context);
void addServerCommands(CLI::App& app, Context& context);
void addStoreCommands(CLI::App& app, Context& context);
void addNotifyCommand(CLI::App& app, Context& context);
void addWaitCommand(CLI::App& app, Context& context);
void addExportCommand(CLI::App& app, Context& context);
/// Not for people: what the shell's completion asks for.
void addCompleteCommand(CLI::App& app, Context& context);

}  // namespace keywardctl
