#include "callbacks/Delivery.h"

namespace keywarden {

bool wasDelivered(const ServiceCallbacks& callbacks) {
    const auto* const delivery = dynamic_cast<const Delivery*>(&callbacks);
    return delivery == nullptr || delivery->lastEventWasDelivered();
}

}  // namespace keywarden
