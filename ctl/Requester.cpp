#include "ctl/Requester.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

#include "channel/PipeFiles.h"
#include "ctl/Problem.h"
#include "support/FileStatus.h"
#include "support/Tools.h"

namespace keywardctl {

namespace {

using keywarden::Commands;

constexpr const char* kRequesterName = "keywardctl";
constexpr int kSliceMilliseconds = 500;
constexpr int kRetryMilliseconds = 20;
// A reload takes the input fifo away for a moment.
constexpr std::int64_t kReloadSeconds = 3;
constexpr unsigned kWordLength = 16;

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

keywarden::Answer parseAnswer(const std::string& answer) {
    keywarden::Answer parsed;
    const char* const end = answer.data() + answer.size();
    const auto [rest, error] = std::from_chars(answer.data(), end, parsed.code);
    if (error != std::errc() || rest == end || *rest != ' ')
        throw Problem(ExitCode::Failed, "the daemon's answer is not understood: '" + answer + "'");
    parsed.text.assign(rest + 1, end);
    return parsed;
}

std::string requestLine(const std::string& service, const std::vector<std::string>& fields) {
    std::string line = kRequesterName;
    const auto append = [&line](const std::string& field) {
        if (field.find_first_of(std::string_view("\t\n\0", 3)) != std::string::npos)
            throw Problem(ExitCode::Usage, "a request cannot hold a tab or a line feed: '" + field + "'");
        line += "\t" + field;
    };
    append(service);
    for (const std::string& field : fields)
        append(field);
    return line;
}

void requireSuccess(const keywarden::Answer& answer) {
    if (answer.code == keywarden::AnswerSuccess)
        return;
    const bool ended =
        answer.code == keywarden::AnswerNotPossible && answer.text == keywarden::kTerminationText;
    throw Problem(ended ? ExitCode::DaemonNotRunning : ExitCode::Refused, answer.text);
}

Requester::Requester(const Device& device, const std::string& service, const Deadline& deadline)
    : device_(device), service_(service), deadline_(deadline), lock_(device, service, deadline_, signals_) {}

keywarden::Answer Requester::ask(Commands::Target target, Commands::Command command,
                                 const std::vector<std::string>& arguments) {
    std::vector<std::string> fields{Commands::wordOf(target), Commands::wordOf(command)};
    fields.insert(fields.end(), arguments.begin(), arguments.end());
    const std::string line = requestLine(service_, fields);
    std::optional<AnswerFifo> fifo(std::in_place, folder(), service_);
    if (fifo->replacedAnother() || lock_.isMarked()) {
        synchronise(*fifo);
        fifo.reset();
        fifo.emplace(folder(), service_);
    }
    lock_.mark();
    send(line);
    const std::string answer = readAnswer(*fifo);
    lock_.unmark();
    return parseAnswer(answer);
}

std::string Requester::askOrThrow(Commands::Target target, Commands::Command command,
                                  const std::vector<std::string>& arguments) {
    const keywarden::Answer answer = ask(target, command, arguments);
    requireSuccess(answer);
    return answer.text;
}

// An answer to somebody who is gone may still be on its way, and nothing in an answer tells whom it is for.
// The refusal of an unknown command repeats the word, though, and requests are answered in their order: after
// the refusal of a word that nobody else knows, the next answer is ours. A word can be lost where the daemon
// takes it for the end of the request before it; then another one is sent.
void Requester::synchronise(AnswerFifo& fifo) {
    lock_.mark();
    for (std::int64_t patience = 1;; patience *= 2) {
        waitForEmptyInput();
        const std::string word = "synchronise-" + keywarden::Tools::getRandomName(kWordLength);
        send(requestLine(service_, {Commands::wordOf(Commands::TargetConfig), word}));
        const Deadline next(patience);
        std::string text;
        while (!next.isOver()) {
            if (!readSome(fifo, text))
                fifo.reopen();
            if (endsWith(text, word))
                return;
        }
    }
}

// What the daemon has not read yet would become one request with ours. It sees the end of it only while
// nobody has the fifo open.
void Requester::waitForEmptyInput() const {
    for (;;) {
        int waiting = 0;
        if (::ioctl(openInput().get(), FIONREAD, &waiting) != 0 || waiting == 0)
            return;
        if (deadline_.isOver())
            giveUp();
        signals_.sleep(deadline_.slice(kRetryMilliseconds));
    }
}

void Requester::send(const std::string& line) const {
    const keywarden::UniqueFd input = openInput();
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t count = ::write(input.get(), line.data() + done, line.size() - done);
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno == EPIPE)
            device_.throwNotRunning("it stopped reading the request");
        else if (errno != EAGAIN && errno != EINTR)
            throw Problem(ExitCode::Failed,
                          "the request cannot be written: " + std::string(std::strerror(errno)));
        else if (deadline_.isOver())
            giveUp();
        else
            signals_.poll(input.get(), POLLOUT, deadline_.slice(kSliceMilliseconds));
    }
}

keywarden::UniqueFd Requester::openInput() const {
    const std::string path = folder() + "/" + keywarden::inputFifoOf(service_);
    const Deadline reload(kReloadSeconds);
    for (;;) {
        keywarden::UniqueFd input(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        const int error = errno;
        const auto status = input ? keywarden::statusOf(input.get()) : std::nullopt;
        if (status && status->isFifo())
            return input;
        if (input)
            throw Problem(ExitCode::Failed, "'" + path + "' is not a fifo; restart the daemon");
        if (error != ENXIO && error != ENOENT)
            throw Problem(ExitCode::Failed, fileProblem("cannot open", path, error));
        if (!device_.daemon())
            device_.throwNotRunning("nobody reads '" + path + "'");
        if (deadline_.isOver())
            giveUp();
        if (reload.isOver())
            throw Problem(ExitCode::DaemonNotRunning, "the daemon runs, but nobody reads '" + path +
                                                          "'; its log tells what became of the service");
        signals_.sleep(kRetryMilliseconds);
    }
}

std::string Requester::readAnswer(const AnswerFifo& fifo) const {
    std::string text;
    while (readSome(fifo, text))
        ;
    // A stop may be told before the end of the answer was seen.
    const std::string stop = std::to_string(keywarden::AnswerNotPossible) + " " + keywarden::kTerminationText;
    if (text.size() > stop.size() && endsWith(text, stop))
        text.resize(text.size() - stop.size());
    return text;
}

// False at the end of a text.
bool Requester::readSome(const AnswerFifo& fifo, std::string& text) const {
    if (deadline_.isOver())
        giveUp();
    const bool alive = device_.daemon().has_value();
    if (signals_.poll(fifo.descriptor(), POLLIN, deadline_.slice(kSliceMilliseconds)) != 0)
        return fifo.read(text);
    // Looked at before the wait: what it wrote last has come by now.
    if (!alive)
        device_.throwNotRunning("it ended before it answered");
    return true;
}

void Requester::giveUp() const {
    throw Problem(ExitCode::Failed, "the daemon did not answer for the service '" + service_ + "' within " +
                                        std::to_string(deadline_.seconds()) +
                                        " s; what was asked for may still be done");
}

}  // namespace keywardctl
