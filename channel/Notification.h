#pragma once

namespace keywarden {

// The characters of the notification fifo; others are ignored.
constexpr char kNetworkHasChanged = 'n';
constexpr char kTimeWasSet = 't';

}  // namespace keywarden
