#include "callbacks/LibraryWrapperServiceCallbacks.h"

#include <dlfcn.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <utility>

#include "callbacks/LibraryCall.h"
#include "support/Debug.h"
#include "support/Failure.h"
#include "support/FileStatus.h"
#include "support/Log.h"
#include "support/StopRequest.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

std::atomic<int> loadedLibraries{0};

struct CloseLibrary {
    void operator()(void* library) const {
        if (StopRequest::isRaised())
            return;
        ::dlclose(library);
        --loadedLibraries;
    }
};
using Library = std::unique_ptr<void, CloseLibrary>;

/// What failing to load the library is reported as.
class LoadFailure {
  public:
    LoadFailure(const std::string& serviceId, const std::string& libraryPath)
        : subject_("Cannot load the callback library " + libraryPath + " for the service " + serviceId) {}

    [[nodiscard]] std::runtime_error because(const std::string& reason) const {
        return std::runtime_error(subject_ + ": " + reason);
    }

  private:
    std::string subject_;
};

/// A fifo, or a device: the loader would open it and could wait for ever.
bool canHoldUp(const std::string& path) {
    const auto status = statusOfPath(path);
    return status && !status->isRegular() && !status->isFolder();
}

Library open(const std::string& path, const LoadFailure& failure) {
    if (canHoldUp(path))
        throw failure.because("It is not a regular file");
    ++loadedLibraries;
    Library library(::dlopen(path.c_str(), RTLD_LAZY));
    if (!library) {
        --loadedLibraries;
        const char* const error = ::dlerror();
        const std::string reason = error != nullptr ? error : "Unknown error.";
        debugTrace(reason);
        throw failure.because(reason);
    }
    return library;
}

void* symbol(const Library& library, const char* name, const LoadFailure& failure) {
    ::dlerror();  // an older error must not be taken for this call's
    void* const address = ::dlsym(library.get(), name);
    if (address != nullptr)
        return address;
    // A symbol may also be there and be null, which is no error to the loader.
    const char* const error = ::dlerror();
    const std::string reason = error != nullptr ? error : std::string(name) + " is null";
    Log::write(SeverityError, error != nullptr ? "Failed to load symbol from library: " + reason
                                               : "Failed to load symbol from library.");
    throw failure.because(reason);
}

int versionOf(const Library& library) {
    const auto* const version =
        static_cast<const int*>(::dlsym(library.get(), "keywarden_callbacks_version"));
    return version == nullptr ? 1 : *version;
}

/// What loading gives. The library is the last to go.
template <typename Create, typename Destroy>
struct Loaded {
    Library library;
    Create create = nullptr;
    Destroy destroy = nullptr;
    ServiceCallbacks* object = nullptr;
    int version = 1;

    void load(const std::string& serviceId, const std::string& path, const LoadFailure& failure) {
        library = open(path, failure);
        create = reinterpret_cast<Create>(symbol(library, "create", failure));
        destroy = reinterpret_cast<Destroy>(symbol(library, "destroy", failure));
        version = versionOf(library);
        std::string reason = "create gave no object";
        try {
            object = create(serviceId);
        } catch (...) {
            // Only the text may leave: the code of an exception type of the library goes with the library.
            reason = Failure::current().text();
        }
        if (object == nullptr)
            throw failure.because(reason);
    }
};

}  // namespace

LibraryWrapperServiceCallbacks::LibraryWrapperServiceCallbacks(const std::string& serviceId,
                                                               const std::string& libraryPath)
    : serviceId_(serviceId), libraryPath_(libraryPath) {
    if (!Tools::fileExist(libraryPath))
        throw std::runtime_error("The callback " + libraryPath + " for the service " + serviceId +
                                 " doesn't exist");
    const LoadFailure failure(serviceId, libraryPath);
    const auto loaded = std::make_shared<Loaded<Create, Destroy>>();
    if (!runOrGiveUp([=] { loaded->load(serviceId, libraryPath, failure); }))
        throw failure.because("it was given up at the stop of the daemon");
    create_ = loaded->create;
    destroy_ = loaded->destroy;
    object_ = loaded->object;
    version_ = loaded->version;
    handle_ = loaded->library.release();
}

LibraryWrapperServiceCallbacks::~LibraryWrapperServiceCallbacks() {
    // Takes over the handle; after a stop it leaves the library where it is.
    const Library library(handle_);
    if (givenUp_)
        return;
    try {
        if (!runOrGiveUp([destroy = destroy_, object = object_] { destroy(object); }))
            giveUp("destroy");
    } catch (...) {
        Log::write(SeverityError, "The callback library " + libraryPath_ + " for the service " + serviceId_ +
                                      " failed to release its object: " + Failure::current().text());
    }
}

void LibraryWrapperServiceCallbacks::tell(const std::string& event,
                                          std::function<void(ServiceCallbacks&)> operation) {
    if (givenUp_)
        return;
    if (!runOrGiveUp([object = object_, operation = std::move(operation)] { operation(*object); }))
        giveUp(event);
}

void LibraryWrapperServiceCallbacks::giveUp(const std::string& what) {
    givenUp_ = true;
    Log::write(SeverityError, "The callback library " + libraryPath_ + " for the service " + serviceId_ +
                                  " was given up at the stop of the daemon: its '" + what +
                                  "' did not return within " +
                                  std::to_string(StopRequest::kGraceMilliseconds / 1000) + " seconds");
}

void LibraryWrapperServiceCallbacks::started() {
    tell("started", [](ServiceCallbacks& object) { object.started(); });
}

void LibraryWrapperServiceCallbacks::stopped() {
    tell("stopped", [](ServiceCallbacks& object) { object.stopped(); });
}

void LibraryWrapperServiceCallbacks::allStarted() {
    tell("allStarted", [](ServiceCallbacks& object) { object.allStarted(); });
}

void LibraryWrapperServiceCallbacks::newGeneratedCertificate(const std::string& id) {
    tell("newGeneratedCertificate", [id](ServiceCallbacks& object) { object.newGeneratedCertificate(id); });
}

void LibraryWrapperServiceCallbacks::updateValidityGeneratedCertificate(int validIn, int expireIn) {
    tell("updateValidityGeneratedCertificate",
         [=](ServiceCallbacks& object) { object.updateValidityGeneratedCertificate(validIn, expireIn); });
}

void LibraryWrapperServiceCallbacks::newExternalCertificate(const std::string& store, const std::string& id) {
    tell("newExternalCertificate",
         [store, id](ServiceCallbacks& object) { object.newExternalCertificate(store, id); });
}

void LibraryWrapperServiceCallbacks::revokedExternalCertificate(const std::string& store,
                                                                const std::string& id) {
    tell("revokedExternalCertificate",
         [store, id](ServiceCallbacks& object) { object.revokedExternalCertificate(store, id); });
}

void LibraryWrapperServiceCallbacks::revokedExternalCertificate(const std::string& store,
                                                                const std::vector<std::string>& ids) {
    tell("revokedExternalCertificate",
         [store, ids](ServiceCallbacks& object) { object.revokedExternalCertificate(store, ids); });
}

bool isCallbackLibraryLoaded() {
    return loadedLibraries > 0;
}

}  // namespace keywarden
