#include "ctl/ServiceView.h"

#include "config/ServiceConfiguration.h"
#include "ctl/NamesCheck.h"
#include "ctl/Problem.h"
#include "ctl/Requester.h"
#include "ctl/Stores.h"

namespace keywardctl {

namespace {

using keywarden::Commands;
using keywarden::ServiceConfiguration;

// One unreadable file hides what is in it, not the rest of the service.
void learn(ServiceView& view, const std::function<void()>& step) {
    try {
        step();
    } catch (const std::exception& error) {
        view.problems.emplace_back(error.what());
    }
}

std::vector<std::string> possibleIssuers(const Device& device, const std::string& caService) {
    std::vector<std::string> services = device.services();
    if (!caService.empty())
        services.insert(services.begin(), caService);
    return services;
}

void learnCertificate(ServiceView& view, const Device& device, const std::string& caService) {
    const auto active = activeCertificateOf(view.service);
    if (!active)
        return;
    ServiceView::Certificate certificate;
    certificate.id = active->id;
    certificate.facts = factsOf(active->certificate);
    certificate.installedAt = active->installedAt;
    certificate.kind =
        kindOf(active->certificate, view.service, possibleIssuers(device, caService), certificate.issuedBy);
    view.certificate = certificate;
}

void learnStores(ServiceView& view, const ServiceConfiguration& configuration) {
    const auto count = [&view](const char* store) {
        return static_cast<std::int64_t>(storedIds(view.service, store).size());
    };
    if (configuration.isCA())
        learn(view, [&] { view.caCertificates = count("ca"); });
    if (configuration.isTrustedClients())
        learn(view, [&] { view.clientCertificates = count("client"); });
}

}  // namespace

Kind kindOf(const keywarden::X509_T& certificate, const std::string& service,
            const std::vector<std::string>& others, std::string& issuedBy) {
    if (keywarden::isSelfSignedCertificate(certificate))
        return Kind::SelfSigned;
    for (const std::string& other : others) {
        if (other == service)
            continue;
        try {
            const auto issuer = activeCertificateOf(other);
            if (issuer && isIssuedBy(certificate, issuer->certificate)) {
                issuedBy = other;
                return Kind::LocalCA;
            }
        } catch (const std::exception&) {
            // It is not the issuer as far as can be known.
        }
    }
    return Kind::External;
}

ServiceView viewOf(const Device& device, const std::string& service) {
    ServiceView view;
    view.service = service;
    std::optional<ServiceConfiguration> configuration;
    learn(view, [&] { configuration.emplace(service); });
    const std::string caService = configuration ? configuration->getCAServiceId() : std::string();
    learn(view, [&] { learnCertificate(view, device, caService); });
    learn(view, [&] { view.requestPending = isRequestPending(service); });
    if (configuration)
        learnStores(view, *configuration);
    if (configuration && view.certificate)
        learn(view, [&] { view.names = compareNames(*configuration, view.certificate->facts.names); });
    return view;
}

void askState(ServiceView& view, const Device& device, const Deadline& deadline) {
    try {
        if (!device.daemon())
            device.throwNotRunning();
        Requester requester(device, view.service, deadline);
        const std::string answer = requester.askOrThrow(Commands::TargetConfig, Commands::CommandStatus);
        view.state = answer == keywarden::kRunningText ? State::Running : State::Stopped;
    } catch (const Problem& problem) {
        view.state = problem.code() == ExitCode::DaemonNotRunning ? State::NotRunning : State::Unknown;
        view.problems.emplace_back(problem.what());
    }
}

std::string wordsOf(Kind kind) {
    switch (kind) {
        case Kind::SelfSigned:
            return "self-signed";
        case Kind::LocalCA:
            return "local CA";
        case Kind::External:
            return "external";
        default:
            return "none";
    }
}

std::string nameOf(Kind kind) {
    switch (kind) {
        case Kind::SelfSigned:
            return "self_signed";
        case Kind::LocalCA:
            return "local_ca";
        case Kind::External:
            return "external";
        default:
            return "none";
    }
}

std::string wordsOf(State state) {
    return state == State::NotRunning ? "not running" : nameOf(state);
}

std::string nameOf(State state) {
    switch (state) {
        case State::Running:
            return "running";
        case State::Stopped:
            return "stopped";
        case State::NotRunning:
            return "not_running";
        default:
            return "unknown";
    }
}

std::string nameOf(NamesView::State state) {
    switch (state) {
        case NamesView::State::Matching:
            return "ok";
        case NamesView::State::Differing:
            return "differs";
        case NamesView::State::Unknown:
            return "unknown";
        default:
            return "none";
    }
}

}  // namespace keywardctl
