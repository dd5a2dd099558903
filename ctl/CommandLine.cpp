#include "ctl/CommandLine.h"

#include <CLI/CLI.hpp>

#include "ctl/Context.h"
#include "ctl/Output.h"
#include "ctl/Problem.h"
#include "ctl/check/CheckCommand.h"
#include "support/Debug.h"

namespace keywardctl {

namespace {

void describe(CLI::App& app, Context& context) {
    app.require_subcommand(1);
    // The options below may also stand behind the command.
    app.fallthrough();
    app.set_version_flag("--version", "keywardctl " KEYWARD_VERSION);
    app.add_option("--timeout", context.timeoutSeconds, "Seconds to wait for the daemon (60)")
        ->check(CLI::Range(1, 86400))
        ->option_text("SECONDS");
    app.add_flag("--debug", keywarden::gDebug, "Tell on standard error what the parts report");
    app.footer("Exit status: 0 done or nothing to do, 1 failed, 2 usage, 3 daemon not running, 4 refused.");
    addStatusCommand(app, context);
    addShowCommand(app, context);
    addServerCommands(app, context);
    addStoreCommands(app, context);
    addNotifyCommand(app, context);
    addWaitCommand(app, context);
    addExportCommand(app, context);
    addCompleteCommand(app, context);
    addCheckCommand(app, context.result);
}

}  // namespace

ExitCode runCommandLine(int argc, char** argv) {
    CLI::App app("Talks to keywardd, the certificate daemon", "keywardctl");
    Context context;
    describe(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::RequiredError& error) {
        // It would only say that a command is missing.
        if (app.get_subcommands().empty() && app.remaining_size() > 0)
            note("there is no command '" + app.remaining().front() + "'");
        app.exit(error);
        return ExitCode::Usage;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitCode::Done : ExitCode::Usage;
    } catch (const Problem& problem) {
        note(problem.what());
        return problem.code();
    }
    return context.result;
}

}  // namespace keywardctl
