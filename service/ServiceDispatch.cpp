// Which request does what.
#include <algorithm>
#include <array>
#include <optional>

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
        if ((handlers.server && row.server.isEmpty()) || (handlers.store && row.store.isEmpty()) ||
            (handlers.config && row.config.isEmpty()))
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

/// What a service does for a command that it is asked for with a target; none where the command is
/// answered as a bad one of that target.
struct Service::Handlers {
    Commands::Command code;
    using Server = Answer (Service::*)(const Commands& command);
    using Store = Answer (Service::*)(const Commands& command, ExternalCertificatesStorage& store);
    /// Without an answer where that comes later.
    using Config = std::optional<Answer> (Service::*)();
    // Not null pointers: whether an address is null, compilers with sanitizers say only at run time.
    std::optional<Server> server;
    std::optional<Store> store;
    std::optional<Config> config;
};

const Service::Handlers& Service::handlersOf(Commands::Command command) {
    // Code, and what is done for "server", for "ca" and "client", and for "config".
    constexpr auto none = std::nullopt;
    static constexpr std::array<Handlers, Commands::CommandEnd> table{{
        {Commands::CommandReload, none, none, &Service::startReload},
        {Commands::CommandHelp, none, none, none},
        {Commands::CommandGetCsr, none, none, none},
        {Commands::CommandCreateCsr, &Service::createCsr, none, none},
        {Commands::CommandCreateCrt, none, none, none},
        {Commands::CommandApplyCrt, &Service::applyCrt, none, none},
        {Commands::CommandRevoke, &Service::revokeServer, &Service::revokeFrom, none},
        {Commands::CommandList, none, none, none},
        {Commands::CommandAdd, none, &Service::addTo, none},
        {Commands::CommandInfo, none, none, none},
        {Commands::CommandDetails, none, none, none},
        {Commands::CommandPath, none, none, none},
        {Commands::CommandGetKey, none, none, none},
        {Commands::CommandGetCert, none, none, none},
        {Commands::CommandNone, none, none, none},
        {Commands::CommandGetOverwrittenData, none, none, none},
        {Commands::CommandSetOverwrittenData, none, none, none},
        {Commands::CommandListByCN, none, none, none},
        {Commands::CommandStatus, none, none, &Service::tellStatus},
        {Commands::CommandGetCsrInfo, &Service::describeRequest, none, none},
        {Commands::CommandGetCertInfo, &Service::describeFile, &Service::describeStored, none},
        {Commands::CommandGetCsrTimestamp, none, none, none},
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
    return handler ? (this->**handler)() : Answer{AnswerBadCommand, "Bad Command config"};
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
        return (this->**handler)(command);
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
    return handler ? (this->**handler)(command, *store) : Answer{AnswerBadCommand, badCommand};
}

Answer Service::describeStored(const Commands& command, ExternalCertificatesStorage& store) {
    return {AnswerSuccess,
            store.getCertInfo(firstArgument(command, "The id of the certificate is missing."))};
}

}  // namespace keywarden
