#pragma once

/// While it lives, this program gets no new threads: as if a limit of threads or of memory were reached. A
/// limit on a real device may be reached again and again, so it can also end by itself.
class ThreadShortage {
  public:
    static constexpr int kUntilTheEnd = -1;

    /// Ends after so many attempts.
    explicit ThreadShortage(int attempts = kUntilTheEnd);
    ThreadShortage(const ThreadShortage&) = delete;
    ThreadShortage& operator=(const ThreadShortage&) = delete;
    ~ThreadShortage();

    /// Attempts that have failed so far.
    [[nodiscard]] static int attempts();
};
