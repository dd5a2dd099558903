#include "callbacks/LibraryWrapperServiceCallbacks.h"

#include <dlfcn.h>

#include <memory>
#include <stdexcept>

#include "support/Debug.h"
#include "support/Failure.h"
#include "support/Log.h"
#include "support/Tools.h"

namespace keywarden {

namespace {

struct CloseLibrary {
    void operator()(void* library) const { ::dlclose(library); }
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

Library open(const std::string& path, const LoadFailure& failure) {
    Library library(::dlopen(path.c_str(), RTLD_LAZY));
    if (!library) {
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

}  // namespace

LibraryWrapperServiceCallbacks::LibraryWrapperServiceCallbacks(const std::string& serviceId,
                                                               const std::string& libraryPath)
    : serviceId_(serviceId), libraryPath_(libraryPath) {
    if (!Tools::fileExist(libraryPath))
        throw std::runtime_error("The callback " + libraryPath + " for the service " + serviceId +
                                 " doesn't exist");
    const LoadFailure failure(serviceId, libraryPath);
    Library library = open(libraryPath, failure);
    create_ = reinterpret_cast<Create>(symbol(library, "create", failure));
    destroy_ = reinterpret_cast<Destroy>(symbol(library, "destroy", failure));
    std::string reason = "create gave no object";
    try {
        object_ = create_(serviceId);
    } catch (...) {
        // Only the text may leave: the code of an exception type of the library goes with the library.
        reason = Failure::current().text();
    }
    if (object_ == nullptr)
        throw failure.because(reason);
    handle_ = library.release();
}

LibraryWrapperServiceCallbacks::~LibraryWrapperServiceCallbacks() {
    try {
        destroy_(object_);
    } catch (...) {
        Log::write(SeverityError, "The callback library " + libraryPath_ + " for the service " + serviceId_ +
                                      " failed to release its object: " + Failure::current().text());
    }
    ::dlclose(handle_);
}

void LibraryWrapperServiceCallbacks::started() {
    object_->started();
}

void LibraryWrapperServiceCallbacks::stopped() {
    object_->stopped();
}

void LibraryWrapperServiceCallbacks::allStarted() {
    object_->allStarted();
}

void LibraryWrapperServiceCallbacks::newGeneratedCertificate(const std::string& id) {
    object_->newGeneratedCertificate(id);
}

void LibraryWrapperServiceCallbacks::updateValidityGeneratedCertificate(int validIn, int expireIn) {
    object_->updateValidityGeneratedCertificate(validIn, expireIn);
}

void LibraryWrapperServiceCallbacks::newExternalCertificate(const std::string& store, const std::string& id) {
    object_->newExternalCertificate(store, id);
}

void LibraryWrapperServiceCallbacks::revokedExternalCertificate(const std::string& store,
                                                                const std::string& id) {
    object_->revokedExternalCertificate(store, id);
}

void LibraryWrapperServiceCallbacks::revokedExternalCertificate(const std::string& store,
                                                                const std::vector<std::string>& ids) {
    object_->revokedExternalCertificate(store, ids);
}

}  // namespace keywarden
