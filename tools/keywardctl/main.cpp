#include <CLI/CLI.hpp>

#include "ExitCode.h"
#include "check/CheckCommand.h"

int main(int argc, char** argv) {
    CLI::App app("Talks to keywardd, the certificate daemon", "keywardctl");
    app.require_subcommand(1);
    auto result = keywardctl::ExitCode::Done;
    keywardctl::addCheckCommand(app, result);
    CLI11_PARSE(app, argc, argv);
    return static_cast<int>(result);
}
