#pragma once

/// While it lives, so many starts of a program fail with this error.
class FailingStart {
  public:
    FailingStart(int error, int starts);
    FailingStart(const FailingStart&) = delete;
    FailingStart& operator=(const FailingStart&) = delete;
    ~FailingStart();

    /// All starts so far, those that failed and those that did not.
    [[nodiscard]] static int starts();
};
