#pragma once

namespace keywarden {

/// The path of the daemon's configuration file, "/etc/keywarden/config.daemon". Fixed on a device; test
/// programs link another definition in its place.
const char* daemonConfigurationPath();

}  // namespace keywarden
