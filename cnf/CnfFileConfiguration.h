#pragma once

#include <string>

#include "cnf/CnfConfiguration.h"

namespace keywarden {

/// Request settings from a file of keys and values.
class CnfFileConfiguration : public CnfConfiguration {
  public:
    /// Throws std::runtime_error when the file cannot be read.
    explicit CnfFileConfiguration(const std::string& path);

    /// The "CN" value, else what the "commonNameScript" prints; empty, after an ERR line, when neither gives
    /// one. Never throws.
    [[nodiscard]] std::string getCN() const override;

  private:
    std::string path_;
    std::string commonNameScript_;
};

}  // namespace keywarden
