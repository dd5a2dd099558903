#include <csignal>
#include <exception>

#include "ctl/CommandLine.h"
#include "ctl/HeldSignals.h"
#include "ctl/Output.h"

int main(int argc, char** argv) {
    // A reader that went away is reported like every failure to write.
    (void)::signal(SIGPIPE, SIG_IGN);
    try {
        return static_cast<int>(keywardctl::runCommandLine(argc, argv));
    } catch (const keywardctl::Interrupted&) {
        // The signal has ended the process before this, unless somebody ignores it.
    } catch (const std::exception& error) {
        keywardctl::note(error.what());
    }
    return static_cast<int>(keywardctl::ExitCode::Failed);
}
