#pragma once

#include <functional>
#include <string>

#include "FaultCalls.h"
#include "FaultRun.h"
#include "Tree.h"

namespace faults {

/// Everything that the daemon keeps, durable and fleeting, and what its owner has been told.
class Device {
  public:
    Device();
    void keep();
    void restore() const;
    void clear();

    [[nodiscard]] const std::string& durable() const { return durable_; }
    [[nodiscard]] const std::string& fleeting() const { return fleeting_; }

  private:
    std::string durable_;
    std::string fleeting_;
    Tree durableTree_;
    Tree fleetingTree_;
    std::string told_;
};

struct Ran {
    enum class Outcome { Confirmed, Failed, Ended, Broken } outcome = Outcome::Broken;
    Calls calls;           ///< of a run that has not ended at a call
    std::string examined;  ///< what the running process found wrong after a failure that it survived
};

/// The operation with its faults, in a child, on the device as it stands.
[[nodiscard]] Ran runOnce(const std::string& name, const Device& device,
                          const std::function<Running()>& begin, const Plan& plan);

[[nodiscard]] std::string describe(const Plan& plan);
[[nodiscard]] bool hasFailure(const Plan& plan);
/// Whether the plan cuts the power after the last call, when all was confirmed.
[[nodiscard]] bool endsAfter(const Plan& plan, unsigned calls);

/// What is wrong after a restart; empty when nothing is.
[[nodiscard]] std::string judge(const Scenario& scenario, const Plan& plan, bool isConfirmed);

}  // namespace faults
