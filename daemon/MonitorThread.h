#pragma once

#include <cstdint>

namespace keywarden {

/// What the monitor works with, both in seconds.
struct thread_arguments {
    std::int32_t thresholdValue = 0;
    std::int32_t sleepTime = 0;
};

/// Fills the arguments from the daemon's configuration; false, after an ERR line, when one of them is 0.
bool CheckIfThreadConfigParamValid(thread_arguments* arguments);

/// Thread body: looks for jumps of the clock and changes of the network once per sleep time. The argument is
/// a filled thread_arguments, which outlives the thread.
void* MonitorTimeNetworkConfig(void* arguments);

/// Whether the network differs from the last look. Takes lock1.
bool CheckChangeInNetworkConfig();

}  // namespace keywarden
