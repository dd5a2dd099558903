#pragma once

#include <string>

namespace keywarden {

/// Overwrites a text that holds key material when it leaves the scope.
class Secret {
  public:
    explicit Secret(std::string text);
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret();

    [[nodiscard]] const std::string& text() const { return text_; }

    /// For `secret.append("\n")`: grows without leaving a copy behind.
    void append(const std::string& more);

  private:
    std::string text_;
};

}  // namespace keywarden
