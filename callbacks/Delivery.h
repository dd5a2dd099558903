#pragma once

#include "callbacks/ServiceCallbacks.h"

namespace keywarden {

/// What callbacks may tell of their last event. Beside ServiceCallbacks, whose operations are the interface
/// of libraries.
class Delivery {
  public:
    virtual ~Delivery() = default;

    /// False when the owner did not hear the last event to its end for a reason that passes: the stop of the
    /// daemon cut it off, or it could not be begun for want of resources. What the owner made of it
    /// (failures, time-outs) does not matter. True before the first event.
    [[nodiscard]] virtual bool lastEventWasDelivered() const = 0;
};

/// lastEventWasDelivered() of callbacks that tell it; true of all others.
[[nodiscard]] bool wasDelivered(const ServiceCallbacks& callbacks);

}  // namespace keywarden
