#pragma once

namespace keywarden {

/// The calling thread's stack.
class ThreadStack {
  public:
    /// Gives the system back what deeper calls have left below the caller's frame: work with keys takes tens
    /// of KiB of stack, which would stay with each thread through all of a long sleep. Keeps errno. Costs a
    /// system call, and each page that is needed again a page fault: not for short waits.
    static void giveBackUnused();
};

}  // namespace keywarden
