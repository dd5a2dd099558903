#pragma once

#include <sys/types.h>

#include <string>

#include "support/UniqueFd.h"

namespace keywarden {

/// Reads a fifo writer after writer: each writer's text ends when the last one that has the fifo open closes
/// it. The next read end is opened before the old one is closed, so that no writer finds the fifo without a
/// reader. Waits can be cancelled (Cancellation.h).
class FifoReader {
  public:
    /// `mode` and `group` are for a fifo that has to be made again because its path no longer is one.
    FifoReader(std::string path, mode_t mode, std::string group);

    /// False when the path cannot be opened as a fifo (never follows a link), nor be made one again.
    [[nodiscard]] bool open();

    /// Waits for a writer and returns the next bytes, at most `capacity`; 0 at the end of a writer's text, -1
    /// when the fifo is lost and could not be made again. open() has succeeded before.
    [[nodiscard]] ssize_t read(char* buffer, std::size_t capacity);

    /// Makes the fifo with its exact mode and group. False, with errno, when it cannot; an unknown group is
    /// left alone, as Tools::changeGroup does.
    static bool make(const std::string& path, mode_t mode, const std::string& group);

    /// Gives a fifo its exact mode; never follows a link. False, with errno, when it cannot.
    static bool setMode(const std::string& path, mode_t mode);

  private:
    [[nodiscard]] UniqueFd openEnd() const;

    std::string path_;
    mode_t mode_;
    std::string group_;
    UniqueFd end_;
    bool inText_ = false;  ///< something was read since the last end of a text
};

}  // namespace keywarden
