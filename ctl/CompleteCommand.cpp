#include <CLI/CLI.hpp>

#include <memory>

#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Output.h"
#include "ctl/Stores.h"

namespace keywardctl {

namespace {

std::string lines(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += word + "\n";
    return text;
}

}  // namespace

void addCompleteCommand(CLI::App& app, Context& /*context*/) {
    CLI::App* const command = app.add_subcommand("complete", "What the shell's completion asks for");
    command->group("");  // not in the help
    command->require_subcommand(1);
    command->add_subcommand("services")->callback([] { print(lines(Device().services())); });
    for (const char* const store : {"ca", "client"}) {
        const auto service = std::make_shared<std::string>();
        CLI::App* const ids = command->add_subcommand(store);
        ids->add_option("SERVICE", *service)->required();
        ids->callback([service, store] {
            Device().require(*service);
            print(lines(storedIds(*service, store)));
        });
    }
}

}  // namespace keywardctl
