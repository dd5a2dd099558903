// The certificates that a service trusts: "ca" and "client".
#include <CLI/CLI.hpp>
#include <memory>

#include "config/ExternalCertificatesAccessor.h"
#include "ctl/CertificateFacts.h"
#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Output.h"
#include "ctl/PassedCertificate.h"
#include "ctl/Problem.h"
#include "ctl/Requester.h"
#include "ctl/ShowCommand.h"
#include "ctl/Stores.h"
#include "ctl/Table.h"
#include "ctl/Text.h"
#include "stores/CertificateIdList.h"

namespace keywardctl {

namespace {

using keywarden::Commands;

struct StoreOptions {
    Commands::Target target = Commands::TargetNone;
    std::string store;
    std::string service;
    std::string file;
    std::vector<std::string> ids;
    bool json = false;
    bool pem = false;
};

std::vector<Cell> rowOf(const std::string& id, const CertificateFacts& facts, std::int64_t now) {
    const std::string name = facts.commonName.empty() ? facts.subject : facts.commonName;
    return {
        {id}, {std::to_string(daysUntil(facts.notAfter, now))}, {utcText(facts.notAfter)}, {printable(name)}};
}

void add(const StoreOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    Requester requester(device, options.service, deadline);
    const PassedCertificate passed(requester, options.file);
    const keywarden::Answer answer = requester.ask(options.target, Commands::CommandAdd, {passed.path()});
    if (answer.code == keywarden::AnswerAlreadyPresent) {
        note(answer.text);
        return;
    }
    requireSuccess(answer);
    print(answer.text + "\n");
}

// One file that holds no certificate does not hide the others.
ExitCode list(const StoreOptions& options) {
    const Device device;
    device.require(options.service);
    const std::int64_t now = keywarden::Clock::now();
    const keywarden::ExternalCertificatesAccessor store(options.service, options.store);
    Table table({"ID", "DAYS", "NOT AFTER", "NAME"});
    std::vector<Json> certificates;
    ExitCode result = ExitCode::Done;
    for (const std::string& id : storedIds(options.service, options.store)) {
        try {
            const std::string path = store.certPath(id);
            const CertificateFacts facts =
                factsOf(certificateIn(storedPem(options.service, options.store, id), path));
            Json json;
            json.text("id", id).text("path", path);
            addFacts(json, facts, now);
            certificates.push_back(json);
            table.add(rowOf(id, facts, now));
        } catch (const Problem& problem) {
            note(problem.what());
            result = ExitCode::Failed;
        }
    }
    Json json = Json::answer();
    json.text("service", options.service).text("store", options.store).objects("certificates", certificates);
    print(options.json ? json.line() : table.text(false));
    return result;
}

void remove(const StoreOptions& options, const Deadline& deadline) {
    const Device device;
    device.require(options.service);
    Requester requester(device, options.service, deadline);
    const std::string answer = requester.askOrThrow(options.target, Commands::CommandRevoke, options.ids);
    if (!answer.empty())
        print(answer + "\n");
    std::vector<std::string> missing;
    for (const std::string& id : options.ids) {
        if ((" " + answer + " ").find(" " + id + " ") == std::string::npos)
            missing.push_back(id);
    }
    if (!missing.empty())
        throw Problem(ExitCode::Failed, "not in the store '" + options.store + "' of the service '" +
                                            options.service + "': " + joined(missing, " "));
}

void showOne(const StoreOptions& options) {
    ShowOptions forwarded;
    forwarded.service = options.service;
    (options.target == Commands::TargetCA ? forwarded.caId : forwarded.clientId) = options.ids.front();
    forwarded.json = options.json;
    forwarded.pem = options.pem;
    show(forwarded);
}

CLI::App* addAction(CLI::App& group, const std::string& name, const std::string& description,
                    const std::shared_ptr<StoreOptions>& options) {
    CLI::App* const command = group.add_subcommand(name, description);
    command->add_option("SERVICE", options->service, "The service")->required();
    return command;
}

void addStore(CLI::App& app, Context& context, Commands::Target target, const std::string& description) {
    const std::string store = Commands::wordOf(target);
    CLI::App* const group = app.add_subcommand(store, description);
    group->require_subcommand(1);
    const auto options = std::make_shared<StoreOptions>();
    options->target = target;
    options->store = store;

    CLI::App* const addCommand = addAction(*group, "add", "Trust a certificate", options);
    addCommand->add_option("FILE", options->file, "The certificate, PEM")->required();
    addCommand->callback([options, &context] { add(*options, context.deadline()); });

    CLI::App* const listCommand = addAction(*group, "list", "Every certificate, one line each", options);
    listCommand->add_flag("--json", options->json, "As JSON");
    listCommand->callback([options, &context] { context.result = list(*options); });

    CLI::App* const showCommand = addAction(*group, "show", "Describe a certificate", options);
    showCommand->add_option("ID", options->ids, "Its id")->required()->expected(1);
    CLI::Option* const json = showCommand->add_flag("--json", options->json, "As JSON");
    showCommand->add_flag("--pem", options->pem, "The certificate itself")->excludes(json);
    showCommand->callback([options] { showOne(*options); });

    CLI::App* const removeCommand = addAction(*group, "remove", "Trust certificates no longer", options);
    removeCommand->add_option("ID", options->ids, "Their ids")->required();
    removeCommand->callback([options, &context] { remove(*options, context.deadline()); });
}

}  // namespace

void addStoreCommands(CLI::App& app, Context& context) {
    addStore(app, context, Commands::TargetCA, "The authorities that a service trusts");
    addStore(app, context, Commands::TargetClient, "The clients that a service trusts");
}

}  // namespace keywardctl
