#pragma once

#include <string>
#include <vector>

#include "channel/Answer.h"
#include "channel/Commands.h"
#include "ctl/AnswerFifo.h"
#include "ctl/Deadline.h"
#include "ctl/Device.h"
#include "ctl/HeldSignals.h"
#include "ctl/RequesterLock.h"

namespace keywardctl {

/// Speaks to one service through its fifos: one request, one answer, as often as wanted. Holds the service's
/// lock, and signals back, for its life. Everything throws Problem (with the daemon's absence as exit code 3)
/// and Interrupted.
class Requester {
  public:
    Requester(const Device& device, const std::string& service, const Deadline& deadline);

    /// An argument with a TAB, a line feed or a NUL in it is a Problem of usage.
    keywarden::Answer ask(keywarden::Commands::Target target, keywarden::Commands::Command command,
                          const std::vector<std::string>& arguments = {});
    /// The text of a success; any other answer is thrown as a Problem with the daemon's text.
    std::string askOrThrow(keywarden::Commands::Target target, keywarden::Commands::Command command,
                           const std::vector<std::string>& arguments = {});

    [[nodiscard]] std::string folder() const { return Device::pipesFolder(service_); }
    [[nodiscard]] const std::string& service() const { return service_; }

  private:
    void synchronise(AnswerFifo& fifo);
    void waitForEmptyInput() const;
    void send(const std::string& line) const;
    [[nodiscard]] keywarden::UniqueFd openInput() const;
    [[nodiscard]] std::string readAnswer(const AnswerFifo& fifo) const;
    bool readSome(const AnswerFifo& fifo, std::string& text) const;
    [[noreturn]] void giveUp() const;

    const Device& device_;
    std::string service_;
    Deadline deadline_;
    HeldSignals signals_;  // before what they protect
    RequesterLock lock_;
};

/// The code and text of "<code> <text>". Throws Problem for anything else.
[[nodiscard]] keywarden::Answer parseAnswer(const std::string& answer);

/// The request line, with the two header fields in front. Throws Problem (usage).
[[nodiscard]] std::string requestLine(const std::string& service, const std::vector<std::string>& fields);

/// Throws the Problem that an answer stands for, unless it is a success.
void requireSuccess(const keywarden::Answer& answer);

}  // namespace keywardctl
