#pragma once

#include <string>
#include <vector>

#include "callbacks/ServiceCallbacks.h"

namespace testsupport {

/// An owner who hears every event and does nothing: for whoever wants one of them, or none.
class SilentCallbacks : public keywarden::ServiceCallbacks {
  public:
    void started() override {}
    void stopped() override {}
    void allStarted() override {}
    void newGeneratedCertificate(const std::string& /*id*/) override {}
    void updateValidityGeneratedCertificate(int /*validIn*/, int /*expireIn*/) override {}
    void newExternalCertificate(const std::string& /*store*/, const std::string& /*id*/) override {}
    void revokedExternalCertificate(const std::string& /*store*/, const std::string& /*id*/) override {}
    void revokedExternalCertificate(const std::string& /*store*/,
                                    const std::vector<std::string>& /*ids*/) override {}
};

}  // namespace testsupport
