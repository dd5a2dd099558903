#include "ctl/ShowCommand.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "config/ExternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "ctl/CertificateFacts.h"
#include "ctl/Context.h"
#include "ctl/Device.h"
#include "ctl/Output.h"
#include "ctl/Problem.h"
#include "ctl/ServiceView.h"
#include "ctl/Stores.h"
#include "ctl/Text.h"
#include "stores/CertificateId.h"
#include "support/Clock.h"
#include "support/FileStatus.h"
#include "support/RegularFile.h"

namespace keywardctl {

namespace {

void showOwn(const ShowOptions& options, const Device& device) {
    const auto active = activeCertificateOf(options.service);
    if (!active)
        throw Problem(ExitCode::Failed, "the service '" + options.service + "' has no certificate");
    if (options.pem) {
        print(active->pem);
        return;
    }
    ServiceView view = viewOf(device, options.service);
    if (!view.certificate)
        throw Problem(ExitCode::Failed, joined(view.problems, "; "));
    const std::int64_t now = keywarden::Clock::now();
    const ServiceView::Certificate& own = *view.certificate;
    if (options.json) {
        Json json;
        json.text("id", own.id).text("path", active->path).text("kind", nameOf(own.kind));
        json.text("issued_by", own.issuedBy.empty() ? std::nullopt : std::make_optional(own.issuedBy));
        addFacts(json, own.facts, now);
        json.number("installed_at", own.installedAt);
        print(Json::answer().text("service", options.service).object("certificate", json).line());
        return;
    }
    const std::string issuer = own.issuedBy.empty() ? "" : " (the service " + own.issuedBy + ")";
    print(factLine("service", options.service) + factLine("id", own.id) +
          factLine("kind", wordsOf(own.kind) + issuer) + factsText(own.facts, now) +
          factLine("installed", utcText(own.installedAt)) + factLine("file", active->path));
}

void showStored(const ShowOptions& options, const std::string& store, const std::string& id) {
    const std::string pem = storedPem(options.service, store, id);
    if (options.pem) {
        print(pem);
        return;
    }
    const std::string path = keywarden::ExternalCertificatesAccessor(options.service, store).certPath(id);
    const CertificateFacts facts = factsOf(certificateIn(pem, path));
    const std::int64_t now = keywarden::Clock::now();
    if (options.json) {
        Json json;
        json.text("id", id).text("path", path);
        addFacts(json, facts, now);
        print(Json::answer()
                  .text("service", options.service)
                  .text("store", store)
                  .object("certificate", json)
                  .line());
        return;
    }
    print(factLine("service", options.service) + factLine("store", store) + factLine("id", id) +
          factsText(facts, now) + factLine("file", path));
}

void showRequest(const ShowOptions& options) {
    const std::string path = serverStoreOf(options.service).csrPath();
    const auto file = keywarden::statusOfPath(path);
    if (!isRequestPending(options.service) || !file)
        throw Problem(ExitCode::Failed, "the service '" + options.service + "' has no pending request");
    if (options.pem) {
        print(keywarden::readRegularFile(path, keywarden::kLargestCertificateFile));
        return;
    }
    const RequestFacts facts = requestFactsOf(path);
    const std::int64_t made = file->modificationTime;
    if (options.json) {
        Json json;
        json.text("path", path).text("subject", facts.subject).text("key", facts.key);
        json.texts("dns", facts.names.hostnames).texts("ips", facts.names.ips).number("created_at", made);
        print(Json::answer().text("service", options.service).object("request", json).line());
        return;
    }
    print(factLine("service", options.service) + factLine("subject", facts.subject) +
          factLine("key", facts.key) + factLine("names", namesText(facts.names)) +
          factLine("created", utcText(made)) + factLine("file", path));
}

}  // namespace

void show(const ShowOptions& options) {
    const Device device;
    device.require(options.service);
    if (options.request)
        showRequest(options);
    else if (!options.caId.empty())
        showStored(options, "ca", options.caId);
    else if (!options.clientId.empty())
        showStored(options, "client", options.clientId);
    else
        showOwn(options, device);
}

void addShowCommand(CLI::App& app, Context& /*context*/) {
    const auto options = std::make_shared<ShowOptions>();
    CLI::App* const command = app.add_subcommand("show", "Describe a certificate or the pending request");
    command->add_option("SERVICE", options->service, "The service")->required();
    CLI::Option* const request = command->add_flag("--request", options->request, "The pending request");
    CLI::Option* const ca = command->add_option("--ca", options->caId, "The trusted CA with this id");
    CLI::Option* const client = command->add_option("--client", options->clientId, "The client with this id");
    request->excludes(ca)->excludes(client);
    ca->excludes(client);
    CLI::Option* const json = command->add_flag("--json", options->json, "As JSON");
    command->add_flag("--pem", options->pem, "The certificate or request itself")->excludes(json);
    command->callback([options] { show(*options); });
}

}  // namespace keywardctl
