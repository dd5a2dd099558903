#pragma once

#include <string>

namespace testsupport {

/// A folder of its own for one test, removed with everything in it.
class Sandbox {
  public:
    Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;
    ~Sandbox();

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string path(const std::string& name) const { return path_ + "/" + name; }

    /// Writes a file below the folder (folders on the way are made) and returns its path.
    std::string write(const std::string& name, const std::string& content, unsigned mode = 0644) const;
    [[nodiscard]] static std::string read(const std::string& path);
    [[nodiscard]] static bool exists(const std::string& path);
    [[nodiscard]] static unsigned mode(const std::string& path);

  private:
    std::string path_;
};

}  // namespace testsupport
