#include "service/Service.h"

#include <unistd.h>

#include <exception>
#include <new>
#include <stdexcept>

#include "callbacks/BinaryServiceCallbacks.h"
#include "callbacks/Delivery.h"
#include "callbacks/LibraryWrapperServiceCallbacks.h"
#include "config/DaemonConfiguration.h"
#include "server/Server.h"
#include "stores/CertificateAuthority.h"
#include "stores/TrustedCertificate.h"
#include "support/Cancellation.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/KeywardenDaemonException.h"
#include "support/Log.h"
#include "support/ShortThread.h"
#include "support/Survive.h"
#include "support/ThreadStack.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

constexpr unsigned kServiceDirectoryMode = 0711;

}  // namespace

Service::Service(const std::string& serviceId)
    : ServiceConfiguration(serviceId),
      timer_(*this, serviceMutex_, retry_, [this] { checkAtTimer(); }),
      channel_(*this, serviceMutex_, retry_, [this](Commands& command) { return execCmd(command); }) {
    try {
        load();
    } catch (...) {
        const Failure failure = Failure::current();
        channel_.removeFiles(Stop::ForGood);
        throw KeywardenDaemonException(
            failure.message("Std exception during loading service object for service-" + serviceId + ": ",
                            "Unknown exception during loading service object for service-" + serviceId));
    }
}

Service::~Service() {
    {
        // Whoever starts a reload holds this mutex: from here on none is started.
        const std::lock_guard<std::mutex> guard(serviceMutex_);
        ending_ = true;
    }
    retry_.end();
    endReloadThread();
    if (loaded_)
        unloadAtTheEnd();
    else
        stopThreads();
    releaseObjects();
}

void Service::unloadAtTheEnd() {
    try {
        unload();
    } catch (...) {
        // The owner's library threw. Its object is still there, and so is the type of what it threw.
        Log::write(SeverityError, "Exception while stopping the service " + getServiceId() + ": " +
                                      Failure::current().text());
        timer_.end();
        channel_.removeFiles(Stop::ForGood);
    }
}

void Service::stopThreads() {
    stopTimer();
    timer_.end();
    if (channel_.isRead())
        stopHandler();
    channel_.removeFiles(Stop::ForGood);
}

void Service::load() {
    if (loaded_)
        return;
    Log::write(SeverityNotice, "The service " + getServiceId() + " is starting...");
    loadCallbacks();
    channel_.makeFolder();
    checkServiceConfig();
    checkServiceDirectory();
    loadStores();
    tellAgain();
    callbacks_->started();
    loaded_ = true;
    // The word "Reload" stands here at every start.
    Log::write(SeverityNotice, "Reload: The service " + getServiceId() + " is started.");
}

void Service::loadCallbacks() {
    if (!getCallbackScript().empty())
        callbacks_ = std::make_shared<BinaryServiceCallbacks>(getServiceId(), getCallbackScript(),
                                                              getCallbackTimeoutSecs());
    else if (!getCallbackLibrary().empty())
        callbacks_ = std::make_shared<LibraryWrapperServiceCallbacks>(getServiceId(), getCallbackLibrary());
    else
        throw std::runtime_error("No callbacks to load");
}

void Service::checkServiceConfig() const {
    requireMembership(getManagementGroup(), ".");
    if (!isServer())
        return;
    requireMembership(getKeyGroup(), "");
    requireReadable(getCnfHookFile());
    requireReadable(getCnfFile());
}

void Service::requireMembership(const std::string& group, const std::string& ending) const {
    const std::string user = DaemonConfiguration::getInstance().getDaemonUser();
    if (!Tools::isGroupExist(group))
        throw KeywardenDaemonException("The group '" + group + "' of the service '" + getServiceId() +
                                       "' doesn't exist");
    if (!Tools::isUserMemberOfGroup(user, group))
        throw KeywardenDaemonException("The user '" + user + "' is not member of the group '" + group +
                                       "' of the service '" + getServiceId() + "'" + ending);
}

void Service::requireReadable(const std::string& path) const {
    if (path.empty() || ::access(path.c_str(), R_OK) == 0)
        return;
    // Says "hook" for the settings file too.
    throw KeywardenDaemonException("The cnf hook '" + path + "' of the service '" + getServiceId() +
                                   "' doesn't have read right for '" +
                                   DaemonConfiguration::getInstance().getDaemonUser() + "'");
}

void Service::checkServiceDirectory() const {
    const std::string directory = DaemonConfiguration::getKeywardDirectory() + "/" + getServiceId();
    Tools::createDirectory(directory, kServiceDirectoryMode);
    try {
        Tools::changeGroup(directory, getManagementGroup());
    } catch (...) {
        Log::write(SeverityError,
                   "Change the group of file: " + directory + " to:" + getManagementGroup() + "' failed.");
    }
}

void Service::loadStores() {
    const std::string& id = getServiceId();
    if (isServer()) {
        Log::write(SeverityNotice, "Server for service " + id + " starting...");
        server_ = std::make_unique<Server>(*this, callbacks_);
        Log::write(SeverityNotice, "Server for service " + id + " started.");
    }
    if (isTrustedClients()) {
        Log::write(SeverityNotice, "trusted clients for service " + id + " starting...");
        trustedClients_ = std::make_unique<TrustedCertificate>(*this);
        Log::write(SeverityNotice, "trusted clients for service " + id + " started.");
    }
    if (isCA()) {
        Log::write(SeverityNotice, "CA for service " + id + " starting...");
        caStore_ = std::make_unique<CertificateAuthority>(*this);
        Log::write(SeverityNotice, "CA for service " + id + " started.");
    }
}

void Service::unload() {
    unload(Stop::ForGood);
}

void Service::unload(Stop stop) {
    Log::write(SeverityNotice, "The service " + getServiceId() + " is stopping...");
    stopTimer();
    channel_.stop(stop);
    {
        // A network or time notification may still be at work on this service.
        const std::lock_guard<std::mutex> guard(serviceMutex_);
        if (callbacks_)
            callbacks_->stopped();
        loaded_ = false;
        // Such a notification may have started the timer again; from here on none does.
        // A reload keeps the thread: there may be no other one to be had.
        if (stop == Stop::ForReload)
            timer_.park();
        else
            timer_.end();
        releaseObjects();
    }
    channel_.removeFiles(stop);
    Log::write(SeverityNotice, "The service " + getServiceId() + " is stopped.");
}

void Service::releaseObjects() {
    caStore_.reset();
    trustedClients_.reset();
    server_.reset();
    callbacks_.reset();
}

void Service::reload() {
    const std::string& id = getServiceId();
    Log::write(SeverityNotice, "Reload the service " + id);
    try {
        unload(Stop::ForReload);
        {
            const std::lock_guard<std::mutex> guard(serviceMutex_);
            ServiceConfiguration::reload();
            load();
        }
        timer_.init(Retry::Attempts::Endless);
        channel_.start(Stop::ForReload, Retry::Attempts::Endless);
        Log::write(SeverityNotice, "The service " + id + " is reloaded.");
    } catch (...) {
        const Failure failure = Failure::current();
        {
            // A network or time notification that is at work on the service starts the timer under the mutex.
            const std::lock_guard<std::mutex> guard(serviceMutex_);
            loaded_ = false;
            timer_.park();
        }
        Log::write(SeverityError,
                   failure.runtimeMessage("Runtime error caught while reloading service-'" + id + "': ",
                                          "Std exception caught while reloading service-'" + id + "': ",
                                          "Unknown exception caught while reloading service-" + id));
        throw KeywardenDaemonException(failure.code(), failure.text());
    }
}

Answer Service::reloadForRequester() {
    const std::string of = " during reload request for service '" + getServiceId() + "'";
    std::string text;
    try {
        reload();
        return {AnswerSuccess, "Reload Successful"};
    } catch (...) {
        text = Failure::current().message("Daemon exception" + of + ": ", "std exception" + of + ": ",
                                          "Unknown exception" + of + ".");
        Log::write(SeverityError, text);
    }
    // Before the answer: whoever has it may ask for the status at once.
    try {
        if (!channel_.isRead())
            channel_.start(Stop::ForReload, Retry::Attempts::One);
    } catch (...) {
        Log::write(SeverityError, Failure::current().text());
    }
    return {AnswerFailure, text};
}

void Service::reloadFunc() {
    if (reloadRuns_ || ending_)
        return;
    endReloadThread();
    reloadRuns_ = true;
    if (::pthread_create(&reloadThread_, nullptr, threadReloadFunc, this) != 0) {
        reloadThread_ = 0;
        reloadRuns_ = false;
        throw KeywardenDaemonException("Impossible to start the reload request thread for the service " +
                                       getServiceId());
    }
}

// A thread that still runs is cut off only while it waits for its requester, who has given up by then: the
// next request comes from whoever owns the channel now.
void Service::endReloadThread() {
    if (reloadThread_ == 0)
        return;
    ::pthread_cancel(reloadThread_);
    ::pthread_join(reloadThread_, nullptr);
    reloadThread_ = 0;
}

void* Service::threadReloadFunc(void* service) {
    Cancellation::prepareThread();
    auto* const self = static_cast<Service*>(service);
    Answer answer{AnswerFailure, "Out of memory"};
    survives("A reload",
             [self, &answer] { runInShortThread([self, &answer] { answer = self->reloadForRequester(); }); });
    // Before the answer: whoever has it may ask again at once.
    self->reloadRuns_ = false;
    self->channel_.answer(answer.code, answer.text);
    self->channel_.listenAfterAll();
    // The rest of the stack stays until this thread is joined, which may be days later.
    ThreadStack::giveBackUnused();
    return nullptr;
}

void Service::notifyAllServicesStarted() {
    debugTrace("Calling callback 'allStarted' for service '" + getServiceId() + "'.");
    std::shared_ptr<ServiceCallbacks> callbacks;
    {
        const std::lock_guard<std::mutex> guard(serviceMutex_);
        callbacks = callbacks_;
    }
    // Without the mutex: the script may well ask the service something, now that it listens.
    if (callbacks)
        callbacks->allStarted();
}

// What the owner missed in an earlier run, because it was cut off by a stop, a kill or a power cut.
void Service::tellAgain() {
    tellAgain(trustedClients_.get());
    tellAgain(caStore_.get());
}

void Service::tellAgain(ExternalCertificatesStorage* store) {
    if (store == nullptr)
        return;
    std::exception_ptr failure;
    bool isTold = true;
    for (const std::vector<std::string>& event : store->toBeTold()) {
        try {
            isTold = tellAgain(*store, event.front(), {event.begin() + 1, event.end()});
        } catch (const std::bad_alloc&) {
            throw;  // perhaps before anybody was told
        } catch (...) {
            // A library that throws was told all the same; the others are told, too.
            failure = failure ? failure : std::current_exception();
        }
        if (!isTold)
            break;
    }
    // Struck out together: one that is told twice does no harm, one that is forgotten does.
    if (isTold)
        store->told();
    if (failure)
        std::rethrow_exception(failure);
}

bool Service::tellAgain(ExternalCertificatesStorage& store, const std::string& event,
                        const std::vector<std::string>& ids) {
    Log::write(SeverityNotice, "The owner of the service '" + getServiceId() +
                                   "' is told again of the event '" + store.storeName() + " " + event +
                                   "' for " + ids.front() + ".");
    if (event == "new")
        callbacks_->newExternalCertificate(store.storeName(), ids.front());
    else
        callbacks_->revokedExternalCertificate(store.storeName(), ids);
    return wasDelivered(*callbacks_);
}

// Cut off by a stop, an event is told again at the next start. A library that throws was told all the same.
// `isOnly`: nothing older is still to be told.
void Service::tell(ExternalCertificatesStorage& store, bool isOnly,
                   const std::function<void()>& event) const {
    try {
        event();
    } catch (const std::bad_alloc&) {
        throw;  // perhaps before anybody was told
    } catch (...) {
        store.told();
        throw;
    }
    if (isOnly && wasDelivered(*callbacks_))
        store.told();
}

}  // namespace keywarden
