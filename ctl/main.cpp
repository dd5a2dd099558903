#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>

#include "ctl/Context.h"
#include "ctl/HeldSignals.h"
#include "ctl/Output.h"
#include "ctl/Problem.h"
#include "ctl/check/CheckCommand.h"
#include "support/Debug.h"

namespace {

using keywardctl::Context;
using keywardctl::ExitCode;

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
    keywardctl::addStatusCommand(app, context);
    keywardctl::addShowCommand(app, context);
    keywardctl::addServerCommands(app, context);
    keywardctl::addStoreCommands(app, context);
    keywardctl::addNotifyCommand(app, context);
    keywardctl::addWaitCommand(app, context);
    keywardctl::addExportCommand(app, context);
    keywardctl::addCompleteCommand(app, context);
    keywardctl::addCheckCommand(app, context.result);
}

ExitCode run(int argc, char** argv) {
    CLI::App app("Talks to keywardd, the certificate daemon", "keywardctl");
    Context context;
    describe(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::RequiredError& error) {
        // It would only say that a command is missing.
        if (app.get_subcommands().empty() && app.remaining_size() > 0)
            keywardctl::note("there is no command '" + app.remaining().front() + "'");
        app.exit(error);
        return ExitCode::Usage;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitCode::Done : ExitCode::Usage;
    } catch (const keywardctl::Problem& problem) {
        keywardctl::note(problem.what());
        return problem.code();
    }
    return context.result;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that went away is reported like every failure to write.
    (void)::signal(SIGPIPE, SIG_IGN);
    try {
        return static_cast<int>(run(argc, argv));
    } catch (const keywardctl::Interrupted&) {
        // The signal has ended the process before this, unless somebody ignores it.
    } catch (const std::exception& error) {
        keywardctl::note(error.what());
    }
    return static_cast<int>(ExitCode::Failed);
}
