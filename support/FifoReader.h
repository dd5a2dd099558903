#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "support/Folder.h"
#include "support/UniqueFd.h"

namespace keywarden {

/// How long writers may leave a text without its end, in milliseconds; kUnlimited is for ever.
struct FifoLimits {
    static constexpr std::int64_t kUnlimited = -1;
    /// After its last byte so far.
    std::int64_t silence = kUnlimited;
    /// After its first byte.
    std::int64_t text = kUnlimited;
};

/// Reads a fifo writer after writer: each writer's text ends when the last one that has the fifo open closes
/// it. The next read end is opened before the old one is closed, so that no writer finds the fifo without a
/// reader. Waits can be cancelled (Cancellation.h).
class FifoReader {
  public:
    /// What read() says of a text that was not ended within the limits.
    static constexpr ssize_t kOverdue = -2;

    /// `mode` and `group` are for a fifo that has to be made again: because what stands in its place is none
    /// of ours any more, or because a writer exceeded a limit. A writer that sends nothing at all is noticed
    /// with the next one's text, which has no end then either: until then it is in nobody's way, and nothing
    /// wakes the reader.
    FifoReader(FolderPtr folder, std::string name, mode_t mode, std::string group, FifoLimits limits = {});

    /// Opens the fifo. What stands in its place is replaced, a folder moved aside; a want of descriptors or
    /// memory is waited out with growing pauses. False when the folder itself has been removed, or when
    /// something keeps the fifo from being made for a while.
    [[nodiscard]] bool open();

    /// Waits for a writer and returns the next bytes, at most `capacity`; 0 at the end of a writer's text, -1
    /// when the fifo is lost as open() says. kOverdue when a writer exceeded a limit: a new fifo
    /// has taken the old one's place by then, in one step, so that later writers find it with its reader and
    /// the overdue one holds a fifo that nobody reads. open() has succeeded before.
    [[nodiscard]] ssize_t read(char* buffer, std::size_t capacity);

  private:
    [[nodiscard]] bool openOrReplace(bool& isSaid);
    [[nodiscard]] bool replace();
    [[nodiscard]] std::string path() const { return folder_->pathOf(name_); }
    [[nodiscard]] std::int64_t millisecondsLeft() const;
    void noteText();
    [[nodiscard]] ssize_t leaveWriterBehind();

    FolderPtr folder_;
    std::string name_;
    mode_t mode_;
    std::string group_;
    FifoLimits limits_;
    UniqueFd end_;
    bool inText_ = false;  ///< something was read since the last end of a text
    // Monotonic milliseconds, while in a text.
    std::int64_t firstByteAt_ = 0;
    std::int64_t lastByteAt_ = 0;
};

}  // namespace keywarden
