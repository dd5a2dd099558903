// What is asked of a service's own certificate.
#include <CLI/CLI.hpp>
#include <memory>

#include "config/ServiceConfiguration.h"
#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Output.h"
#include "ctl/PassedCertificate.h"
#include "ctl/Problem.h"
#include "ctl/Requester.h"
#include "ctl/Stores.h"
#include "stores/CertificateId.h"
#include "support/RegularFile.h"

namespace keywardctl {

namespace {

using keywarden::Commands;
using keywarden::ServiceConfiguration;

constexpr const char* kGenerationKeys = "neither \"selfSignedGeneration yes\" nor \"CASignedGeneration yes\"";

struct ServerOptions {
    std::string service;
    std::string file;
    bool noAddresses = false;
};

ServiceConfiguration configurationOf(const std::string& service) {
    try {
        return ServiceConfiguration(service);
    } catch (const std::exception& error) {
        throw Problem(ExitCode::Failed, error.what());
    }
}

bool makesCertificates(const ServiceConfiguration& configuration) {
    return configuration.isSelfSignedGeneration() || configuration.isCASignedGeneration();
}

std::string pemOf(const std::optional<ActiveCertificate>& active) {
    return active ? active->pem : std::string();
}

// The request's own text ends in an empty line.
std::string withOneLineEnd(const std::string& pem) {
    return pem.substr(0, pem.find_last_not_of('\n') + 1) + "\n";
}

void csr(const ServerOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    std::string pem;
    {
        // Read under the lock: the next requester's request would take the place of this one.
        Requester requester(device, options.service, deadline);
        std::vector<std::string> arguments;
        if (options.noAddresses)
            arguments.emplace_back(keywarden::kNoAddressesOption);
        requester.askOrThrow(Commands::TargetServer, Commands::CommandCreateCsr, arguments);
        const std::string path = serverStoreOf(options.service).csrPath();
        try {
            pem = keywarden::readRegularFile(path, keywarden::kLargestCertificateFile);
        } catch (const std::exception& error) {
            throw Problem(ExitCode::Failed,
                          "the request was made, but '" + path + "' cannot be read: " + error.what());
        }
    }
    writeOutput(options.file, withOneLineEnd(pem));
}

void apply(const ServerOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    {
        Requester requester(device, options.service, deadline);
        const PassedCertificate passed(requester, options.file);
        requester.askOrThrow(Commands::TargetServer, Commands::CommandApplyCrt, {passed.path()});
    }
    const auto active = activeCertificateOf(options.service);
    print((active ? active->id : std::string()) + "\n");
}

// What the daemon makes of "revoke" depends on the settings that it has loaded, which can differ from the
// file's.
void renew(const ServerOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    const ServiceConfiguration configuration = configurationOf(options.service);
    if (!makesCertificates(configuration))
        throw Problem(ExitCode::Refused, "the daemon makes no certificates for the service '" +
                                             options.service + "': '" + configuration.getServiceConfigFile() +
                                             "' has " + kGenerationKeys +
                                             "; use 'keywardctl csr' and 'keywardctl apply'");
    const std::string before = pemOf(activeCertificateOf(options.service));
    Requester(device, options.service, deadline).askOrThrow(Commands::TargetServer, Commands::CommandRevoke);
    const auto active = activeCertificateOf(options.service);
    if (!active)
        throw Problem(ExitCode::Failed,
                      "the certificate is gone and there is no new one: the daemon works with older settings "
                      "than the service's file has; use 'keywardctl reload " +
                          options.service + "'");
    if (active->pem == before)
        throw Problem(ExitCode::Failed, "the daemon kept the certificate '" + active->id + "'");
    print(active->id + "\n");
}

void revoke(const ServerOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    const bool hadOne = activeCertificateOf(options.service).has_value();
    Requester(device, options.service, deadline).askOrThrow(Commands::TargetServer, Commands::CommandRevoke);
    if (const auto active = activeCertificateOf(options.service)) {
        print(active->id + "\n");
        note("the daemon has made a new certificate in the place of the old one");
    } else if (hadOne) {
        note("the service '" + options.service + "' has no certificate any more: its settings have " +
             kGenerationKeys + "; install one with 'keywardctl csr' and 'keywardctl apply'");
    } else {
        note("the service '" + options.service + "' had no certificate");
    }
}

void reload(const ServerOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    Requester requester(device, options.service, deadline);
    print(requester.askOrThrow(Commands::TargetConfig, Commands::CommandReload) + "\n");
}

using Action = void (*)(const ServerOptions&, const Deadline&);

CLI::App* add(CLI::App& app, const Context& context, const std::string& name, const std::string& description,
              const std::shared_ptr<ServerOptions>& options, Action action) {
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("SERVICE", options->service, "The service")->required();
    command->callback([options, action, &context] { action(*options, context.deadline()); });
    return command;
}

}  // namespace

void addServerCommands(CLI::App& app, Context& context) {
    const auto options = std::make_shared<ServerOptions>();
    CLI::App* const csrCommand =
        add(app, context, "csr", "Make a key and a signing request for an external PKI", options, csr);
    csrCommand->add_flag("--no-ip", options->noAddresses, "Leave the addresses out");
    csrCommand->add_option("-o,--output", options->file, "Write the request into this file");
    CLI::App* const applyCommand =
        add(app, context, "apply", "Install the certificate that came for the request", options, apply);
    applyCommand->add_option("FILE", options->file, "The certificate, PEM")->required();
    add(app, context, "renew", "Have the daemon make a new certificate now", options, renew);
    add(app, context, "revoke", "Replace the certificate, or remove it when the daemon may not make one",
        options, revoke);
    add(app, context, "reload", "Have the daemon read the service's files again", options, reload);
}

}  // namespace keywardctl
