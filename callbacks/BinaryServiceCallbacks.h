#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "callbacks/ServiceCallbacks.h"

namespace keywarden {

/// Runs the owner's script for every event and waits for its end. Events never throw: what the script did
/// wrong is logged.
class BinaryServiceCallbacks : public ServiceCallbacks {
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

  private:
    enum class Trace { No, Yes };
    void run(const std::vector<std::string>& event, Trace trace = Trace::Yes) const;

    std::string serviceId_;
    std::string script_;
    std::uint32_t timeoutSeconds_;
};

}  // namespace keywarden
