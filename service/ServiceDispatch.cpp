// Which request does what.
#include <algorithm>

#include "callbacks/ServiceCallbacks.h"
#include "channel/Commands.h"
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

const std::string& firstArgument(const Commands& command, const std::string& missing) {
    if (command.getArguments().empty())
        throw KeywardenDaemonException(missing);
    return command.getArguments().front();
}

}  // namespace

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
    const int target = command.getTarget();
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
        default:
            return Answer{AnswerBadCommand, "Command error"};
    }
}

std::optional<Answer> Service::execConfig(const Commands& command) {
    switch (command.getCommand()) {
        case Commands::CommandStatus:
            return Answer{AnswerSuccess, loaded_ ? kRunningText : kStoppedText};
        case Commands::CommandReload:
            if (!loaded_)
                return logged(AnswerNotPossible, "Not able to reload the service-" + getServiceId());
            reloadFunc();
            return std::nullopt;
        default:
            return Answer{AnswerBadCommand, "Bad Command config"};
    }
}

Answer Service::execServer(const Commands& command) {
    if (!server_)
        return logged(AnswerNotPossible, "Server doesn't exist for " + getServiceId());
    switch (command.getCommand()) {
        case Commands::CommandCreateCsr:
            return createCsr(command);
        case Commands::CommandApplyCrt:
            return applyCrt(command);
        case Commands::CommandRevoke:
            return revokeServer();
        case Commands::CommandGetCsrInfo:
            return {AnswerSuccess, server_->getCsrInfo()};
        case Commands::CommandGetCertInfo:
            return {AnswerSuccess,
                    server_->getCertInfo(firstArgument(command, "The path of the certificate is missing."))};
        default:
            Log::write(SeverityError, "Bad command server for service: " + getServiceId());
            return {AnswerBadCommand, "Bad Command server"};
    }
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
    restartTimer();
    Log::write(SeverityNotice, "Apply CRT request received for service: " + getServiceId());
    return {};
}

Answer Service::revokeServer() {
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
    startTimerAgain();
    debugTrace("Start timer success.");
    Log::write(SeverityNotice, "Revoke request processed for service: " + getServiceId());
    return {};
}

Answer Service::addTo(ExternalCertificatesStorage& store, const std::string& path) {
    tellAgain(&store);
    const bool isOnly = store.toBeTold().empty();
    std::string id;
    try {
        id = store.add(path);
    } catch (...) {
        // It may lie in the store all the same.
        tellAgain(&store);
        throw;
    }
    tell(store, isOnly, [&] { callbacks_->newExternalCertificate(store.storeName(), id); });
    return {AnswerSuccess, id};
}

Answer Service::revokeFrom(ExternalCertificatesStorage& store, const std::vector<std::string>& ids) {
    tellAgain(&store);
    const bool isOnly = store.toBeTold().empty();
    CertificateIdList revoked;
    try {
        revoked = store.revoke(ids);
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
    switch (command.getCommand()) {
        case Commands::CommandAdd:
            return addTo(*store, command.getArguments().front());
        case Commands::CommandGetCertInfo:
            return {AnswerSuccess,
                    store->getCertInfo(firstArgument(command, "The id of the certificate is missing."))};
        case Commands::CommandRevoke:
            return revokeFrom(*store, command.getArguments());
        default:
            return {AnswerBadCommand, badCommand};
    }
}

}  // namespace keywarden
