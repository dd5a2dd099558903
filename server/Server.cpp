#include "server/Server.h"

#include "support/Log.h"

namespace keywarden {

Server::Server(const ServiceConfiguration& configuration, const std::shared_ptr<ServiceCallbacks>& callbacks)
    : configuration_(configuration),
      store_(configuration, callbacks),
      issuer_(configuration, store_),
      renewal_(configuration, store_, issuer_, callbacks) {
    Log::open();
    const bool isPresent = store_.start();
    Log::write(SeverityInfo, (isPresent ? "Server certificate found for service: "
                                        : "Server certificate not found for service: ") +
                                 configuration.getServiceId());
    renewal_.checkAtStart(isPresent);
}

}  // namespace keywarden
