#pragma once

#include <iostream>
#include <sstream>
#include <string>

#include "support/Debug.h"

/// Debug traces are on while it lives and are kept instead of printed.
class CapturedTraces {
  public:
    CapturedTraces() : previous_(std::cerr.rdbuf(kept_.rdbuf())) { keywarden::gDebug = true; }
    CapturedTraces(const CapturedTraces&) = delete;
    CapturedTraces& operator=(const CapturedTraces&) = delete;
    ~CapturedTraces() {
        keywarden::gDebug = false;
        std::cerr.rdbuf(previous_);
    }

    [[nodiscard]] std::string text() const { return kept_.str(); }

  private:
    std::ostringstream kept_;
    std::streambuf* previous_;
};
