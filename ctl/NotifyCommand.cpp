#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "channel/Notification.h"
#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Problem.h"
#include "support/FileStatus.h"
#include "support/UniqueFd.h"

namespace keywardctl {

namespace {

[[noreturn]] void throwOpenProblem(const Device& device, const std::string& path, int error) {
    if (error == ENXIO || error == ENOENT)
        device.throwNotRunning("nobody reads '" + path + "'");
    std::string text = fileProblem("cannot open", path, error);
    const auto status = keywarden::statusOfPath(path);
    if (error == EACCES && status)
        text += "; " + membershipAdvice(status->gid, "notify the daemon");
    throw Problem(ExitCode::Failed, text);
}

void notify(char what) {
    const Device device;
    const std::string path = Device::notificationFifo();
    const keywarden::UniqueFd fifo(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!fifo)
        throwOpenProblem(device, path, errno);
    const auto status = keywarden::statusOf(fifo.get());
    if (!status || !status->isFifo())
        throw Problem(ExitCode::Failed, "'" + path + "' is not a fifo; restart the daemon");
    if (::write(fifo.get(), &what, 1) == 1)
        return;
    if (errno == EPIPE)
        device.throwNotRunning("it stopped reading '" + path + "'");
    throw Problem(ExitCode::Failed, fileProblem("cannot write", path, errno));
}

}  // namespace

void addNotifyCommand(CLI::App& app, Context& /*context*/) {
    CLI::App* const command = app.add_subcommand("notify", "Tell the daemon of a change");
    command->require_subcommand(1);
    command->add_subcommand("network", "The names or addresses of the device have changed")->callback([] {
        notify(keywarden::kNetworkHasChanged);
    });
    command->add_subcommand("time", "The clock was set")->callback([] { notify(keywarden::kTimeWasSet); });
}

}  // namespace keywardctl
