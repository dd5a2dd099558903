#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "callbacks/Delivery.h"
#include "callbacks/ServiceCallbacks.h"

namespace keywarden {

/// Runs the owner's script for every event and waits for its end. Events never throw: what the script did
/// wrong is logged. A script that cannot be started for want of processes, descriptors or memory is tried
/// again for a moment.
class BinaryServiceCallbacks : public ServiceCallbacks, public Delivery {
  public:
    /// After `timeoutSeconds` a run is killed, its background processes included; 0 is no time-out. Throws
    /// std::runtime_error unless the script exists and may be executed.
    BinaryServiceCallbacks(const std::string& serviceId, const std::string& scriptPath,
                           std::uint32_t timeoutSeconds = 0);

    void started() override;
    void stopped() override;
    void allStarted() override;
    void newGeneratedCertificate(const std::string& id) override;
    void updateValidityGeneratedCertificate(int validIn, int expireIn) override;
    void newExternalCertificate(const std::string& store, const std::string& id) override;
    void revokedExternalCertificate(const std::string& store, const std::string& id) override;
    void revokedExternalCertificate(const std::string& store, const std::vector<std::string>& ids) override;

    [[nodiscard]] bool lastEventWasDelivered() const override { return delivered_; }

  private:
    enum class Trace { No, Yes };
    void run(const std::vector<std::string>& event, Trace trace = Trace::Yes);
    /// Whether it was delivered. Throws what running it throws.
    bool runScript(const std::vector<std::string>& event, Trace trace, const std::string& failed) const;

    std::string serviceId_;
    std::string script_;
    std::uint32_t timeoutSeconds_;
    std::atomic<bool> delivered_{true};  ///< allStarted may overlap with another event
};

}  // namespace keywarden
