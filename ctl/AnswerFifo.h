#pragma once

#include <string>

#include "support/UniqueFd.h"

namespace keywardctl {

/// The fifo "<service>.out" that the daemon answers into: made for one request, open for reading, removed
/// with the object. Only the holder of the service's lock makes one.
class AnswerFifo {
  public:
    /// A fifo that stands there is a dead requester's and is removed; for anything else, and when the fifo
    /// cannot be made, throws Problem.
    AnswerFifo(const std::string& folder, const std::string& service);
    AnswerFifo(const AnswerFifo&) = delete;
    AnswerFifo& operator=(const AnswerFifo&) = delete;
    ~AnswerFifo();

    [[nodiscard]] bool replacedAnother() const { return replacedAnother_; }
    [[nodiscard]] int descriptor() const { return end_.get(); }

    /// Appends what is there. False at the end: nobody has it open for writing any more.
    [[nodiscard]] bool read(std::string& text) const;
    /// Ready for the next writer after an end.
    void reopen();

  private:
    void removePredecessor();
    void make(const std::string& folder);
    [[nodiscard]] keywarden::UniqueFd open() const;

    std::string path_;
    bool replacedAnother_ = false;
    keywarden::UniqueFd end_;
};

}  // namespace keywardctl
