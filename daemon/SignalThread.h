#pragma once

namespace keywarden {

/// Thread body: waits for SIGINT, SIGTERM or SIGQUIT and cancels the notification and monitor threads.
void* MonitorShutdownSigReceived(void* unused);

}  // namespace keywarden
