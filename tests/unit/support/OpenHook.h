#pragma once

#include <functional>
#include <string>

/// What happens in the moment before this program opens a name in a folder for reading: what another process
/// could do in between, at the worst possible time. One shot, for the calling thread.
class OpenHook {
  public:
    OpenHook(std::string path, std::function<void()> action);
    OpenHook(const OpenHook&) = delete;
    OpenHook& operator=(const OpenHook&) = delete;
    ~OpenHook();

    [[nodiscard]] static bool wasUsed();
};
