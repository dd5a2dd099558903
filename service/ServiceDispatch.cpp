// Which request does what.
#include <algorithm>
#include <array>

#include "callbacks/ServiceCallbacks.h"
#include "channel/CommandTable.h"
#include "network/NetworkConfiguration.h"
#include "server/Server.h"
#include "service/Service.h"
#include "stores/CertificateAuthority.h"
#include "stores/TrustedCertificate.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/ShortThread.h"

namespace keywarden {

namespace {

Answer logged(AnswerCode code, const std::string& text) {
    Log::write(SeverityError, text);
    return {code, text};
}

// Whether the channel lets a request through to every handler.
template <typename Table>
constexpr bool canBeAskedFor(const Table& table) {
    for (const auto& handlers : table) {
        const CommandRow& row = rowOf(kCommandTable, handlers.code);
        if ((handlers.server != nullptr && row.server.isEmpty()) ||
            (handlers.store != nullptr && row.store.isEmpty()) ||
            (handlers.config != nullptr && row.config.isEmpty()))
            return false;
    }
    return true;
}

const std::string& firstArgument(const Commands& command, const std::string& missing) {
    if (command.getArguments().empty())
        throw KeywardenDaemonException(missing);
    return command.getArguments().front();
}

}  // namespace

/// What a service does for a command that it is asked for with a target; nothing where the command is
/// answered as a bad one of that target.
struct Service::Handlers {
    Commands::Command code;
    Answer (Service::*server)(const Commands& command);
    Answer (Service::*store)(const Commands& command, ExternalCertificatesStorage& store);
    /// Without an answer where that comes later.
    std::optional<Answer> (Service::*config)();
};

const Service::Handlers& Service::handlersOf(Commands::Command command) {
    // Code, and what is done for "server", for "ca" and "client", and for "config".
    static constexpr std::array<Handlers, Commands::CommandEnd> table{{
        {Commands::CommandReload, nullptr, nullptr, &Service::startReload},
        {Commands::CommandHelp, nullptr, nullptr, nullptr},
        {Commands::CommandGetCsr, nullptr, nullptr, nullptr},
        {Commands::CommandCreateCsr, &Service::createCsr, nullptr, nullptr},
        {Commands::CommandCreateCrt, nullptr, nullptr, nullptr},
        {Commands::CommandApplyCrt, &Service::applyCrt, nullptr, nullptr},
        {Commands::CommandRevoke, &Service::revokeServer, &Service::revokeFrom, nullptr},
        {Commands::CommandList, nullptr, nullptr, nullptr},
        {Commands::CommandAdd, nullptr, &Service::addTo, nullptr},
        {Commands::CommandInfo, nullptr, nullptr, nullptr},
        {Commands::CommandDetails, nullptr, nullptr, nullptr},
        {Commands::CommandPath, nullptr, nullptr, nullptr},
        {Commands::CommandGetKey, nullptr, nullptr, nullptr},
        {Commands::CommandGetCert, nullptr, nullptr, nullptr},
        {Commands::CommandNone, nullptr, nullptr, nullptr},
        {Commands::CommandGetOverwrittenData, nullptr, nullptr, nullptr},
        {Commands::CommandSetOverwrittenData, nullptr, nullptr, nullptr},
        {Commands::CommandListByCN, nullptr, nullptr, nullptr},
        {Commands::CommandStatus, nullptr, nullptr, &Service::tellStatus},
        {Commands::CommandGetCsrInfo, &Service::describeRequest, nullptr, nullptr},
        {Commands::CommandGetCertInfo, &Service::describeFile, &Service::describeStored, nullptr},
        {Commands::CommandGetCsrTimestamp, nullptr, nullptr, nullptr},
    }};
    static_assert(hasEveryCommand(table));
    static_assert(canBeAskedFor(table));
    return rowOf(table, command);
}

std::optional<Answer> Service::execCmd(Commands& command) {
    Log::open();
    try {
        if (command.getTarget() == Commands::TargetConfig)
            return dispatch(command);
        std::optional<Answer> answer;
        runInShortThread([this, &command, &answer] { answer = dispatch(command); });
        return answer;
    } catch (...) {
        const Failure failure = Failure::current();
        const std::string of = " during user request process for service '" + getServiceId() + "'";
        const std::string text = failure.message("Daemon exception" + of + ": ", "std exception" + of + ": ",
                                                 "Unknown exception" + of + ".");
        Log::write(SeverityError, text);
        return Answer{failure.code() != 0 ? failure.code() : AnswerFailure, text};
    }
}

std::optional<Answer> Service::dispatch(const Commands& command) {
    const Commands::Target target = command.getTarget();
    if (!loaded_ && target != Commands::TargetConfig)
        return Answer{AnswerNotPossible, "The service is not running."};
    switch (target) {
        case Commands::TargetConfig:
            return execConfig(command);
        case Commands::TargetServer:
            return execServer(command);
        case Commands::TargetCA:
            return execStore(command, caStore_.get(), "CA doesn't exist for " + getServiceId(),
                             "Bad Command ca");
        case Commands::TargetClient:
            return execStore(command, trustedClients_.get(),
                             "Trusted certificate doesn't exist for " + getServiceId(),
                             "Bad Command Trusted certificate");
        case Commands::TargetNone:
            break;
    }
    return Answer{AnswerBadCommand, "Command error"};
}

std::optional<Answer> Service::execConfig(const Commands& command) {
    const auto handler = handlersOf(command.getCommand()).config;
    return handler != nullptr ? (this->*handler)() : Answer{AnswerBadCommand, "Bad Command config"};
}

std::optional<Answer> Service::tellStatus() {
    return Answer{AnswerSuccess, loaded_ ? kRunningText : kStoppedText};
}

std::optional<Answer> Service::startReload() {
    if (!loaded_)
        return logged(AnswerNotPossible, "Not able to reload the service-" + getServiceId());
    reloadFunc();
    return std::nullopt;
}

Answer Service::execServer(const Commands& command) {
    if (!server_)
        return logged(AnswerNotPossible, "Server doesn't exist for " + getServiceId());
    if (const auto handler = handlersOf(command.getCommand()).server)
        return (this->*handler)(command);
    Log::write(SeverityError, "Bad command server for service: " + getServiceId());
    return {AnswerBadCommand, "Bad Command server"};
}

Answer Service::describeRequest(const Commands& /*command*/) {
    return {AnswerSuccess, server_->getCsrInfo()};
}

Answer Service::describeFile(const Commands& command) {
    return {AnswerSuccess,
            server_->getCertInfo(firstArgument(command, "The path of the certificate is missing."))};
}

Answer Service::createCsr(const Commands& command) {
    const auto& arguments = command.getArguments();
    Log::write(SeverityNotice, "CSR creation request received for service: " + getServiceId() +
                                   " with nb parameters: " + std::to_string(arguments.size()));
    if (std::find(arguments.begin(), arguments.end(), kNoAddressesOption) != arguments.end())
        server_->createCsr(Server::OverrideStaticConfig{true});
    else
        server_->createCsr();
    Log::write(SeverityNotice, "CSR creation request processed for service: " + getServiceId());
    return {};
}

Answer Service::applyCrt(const Commands& command) {
    server_->applyCrt(command.getArguments().front());
    timer_.restart();
    Log::write(SeverityNotice, "Apply CRT request received for service: " + getServiceId());
    return {};
}

Answer Service::revokeServer(const Commands& /*command*/) {
    const std::string service = "for service '" + getServiceId() + "'";
    if (server_->isCASignedGeneration()) {
        Log::write(SeverityNotice,
                   "Create and Apply CA-Signed certificate " + service + " as the old one is revoked.");
        NetworkConfiguration::getInstance().reload();
        server_->createAndApplyCASigned();
    } else if (server_->isSelfSignedGeneration()) {
        Log::write(SeverityNotice,
                   "Create and Apply SelfSigned certificate " + service + " as the old one is revoked.");
        server_->createAndApplySelfSigned();
    } else {
        Log::write(SeverityNotice,
                   "Certificate " + service + " can not be generated as signed type is disabled.");
        server_->revokeCrt();
        return {};
    }
    stopTimer();
    debugTrace("Stop timer success.");
    timer_.startAgain();
    debugTrace("Start timer success.");
    Log::write(SeverityNotice, "Revoke request processed for service: " + getServiceId());
    return {};
}

Answer Service::addTo(const Commands& command, ExternalCertificatesStorage& store) {
    tellAgain(&store);
    const bool isOnly = store.toBeTold().empty();
    std::string id;
    try {
        id = store.add(command.getArguments().front());
    } catch (...) {
        // It may lie in the store all the same.
        tellAgain(&store);
        throw;
    }
    tell(store, isOnly, [&] { callbacks_->newExternalCertificate(store.storeName(), id); });
    return {AnswerSuccess, id};
}

Answer Service::revokeFrom(const Commands& command, ExternalCertificatesStorage& store) {
    tellAgain(&store);
    const bool isOnly = store.toBeTold().empty();
    CertificateIdList revoked;
    try {
        revoked = store.revoke(command.getArguments());
    } catch (...) {
        // Some may be gone all the same.
        tellAgain(&store);
        throw;
    }
    if (!revoked.empty())
        tell(store, isOnly,
             [&] { callbacks_->revokedExternalCertificate(store.storeName(), revoked.toArray()); });
    return {AnswerSuccess, revoked.toTextList()};
}

Answer Service::execStore(const Commands& command, ExternalCertificatesStorage* store,
                          const std::string& missing, const std::string& badCommand) {
    // Answered alone, unlike a missing server.
    if (store == nullptr)
        return {AnswerNotPossible, missing};
    const auto handler = handlersOf(command.getCommand()).store;
    return handler != nullptr ? (this->*handler)(command, *store) : Answer{AnswerBadCommand, badCommand};
}

Answer Service::describeStored(const Commands& command, ExternalCertificatesStorage& store) {
    return {AnswerSuccess,
            store.getCertInfo(firstArgument(command, "The id of the certificate is missing."))};
}

}  // namespace keywarden
