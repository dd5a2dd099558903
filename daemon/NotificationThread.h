#pragma once

#include <memory>
#include <string>

namespace keywarden {

class Service;

/// "notification.signal" in the named-pipes directory.
std::string notificationFifoPath();

/// Thread body: reads the notification fifo, "n" for a network change and "t" for a time change.
void* notificationHandler(void* unused);

// Tell every service, those whose names begin with "pki" first. lock1 is held.
void networkNotificationHandler();
void timeNotificationHandler();

/// Tell one service. A failure ends the daemon with code 12.
void notifiyNetworkChanged(const std::shared_ptr<Service>& service);
void notifiyTimeChanged(const std::shared_ptr<Service>& service);

}  // namespace keywarden
