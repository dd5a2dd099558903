#pragma once

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "channel/Answer.h"
#include "channel/Commands.h"
#include "channel/PipeFiles.h"
#include "service/Retry.h"
#include "support/Folder.h"
#include "support/KeywardenDaemonException.h"

namespace keywarden {

class FifoReader;
class ServiceConfiguration;

/// What may be the doing of the service's group, who share the folder of the pipe files: no reason to end the
/// daemon.
class PipesNotMade : public KeywardenDaemonException {
  public:
    using KeywardenDaemonException::KeywardenDaemonException;
};

/// The command channel of one service: its pipe files, the thread that reads the requests, and the answers.
///
/// Its functions are for one thread at a time, apart from answer(), which is for whoever has done what a
/// request asked for.
class ServiceChannel {
  public:
    /// Why a channel stops: at a reload the requester still waits for its answer, so its output fifo and the
    /// lock it holds stay.
    enum class Stop { ForGood, ForReload };

    /// Runs one command, with the service mutex held. Nothing when the answer comes later, by answer().
    using Execute = std::function<std::optional<Answer>(Commands&)>;

    /// All of them must outlive the channel; the configuration changes only while nobody reads.
    ServiceChannel(const ServiceConfiguration& configuration, std::mutex& serviceMutex, Retry& retry,
                   Execute execute);
    ServiceChannel(const ServiceChannel&) = delete;
    ServiceChannel& operator=(const ServiceChannel&) = delete;
    /// Ends the reader; the files stay.
    ~ServiceChannel();

    /// The folder of the pipes, which the stores need as well.
    void makeFolder();

    /// Makes the pipe files and starts the reader. Throws KeywardenDaemonException; PipesNotMade when it is
    /// the pipe files that cannot be made.
    void start(Stop before, Retry::Attempts attempts);
    /// After that: the reader's own thread makes them as soon as that is possible. Throws when there is no
    /// thread.
    void startLater();
    /// Ends the reader and removes its fifo; for good, with the last answer and everything else.
    void stop(Stop stop);
    /// What stop() may leave, and what the stores have put into the folder.
    void removeFiles(Stop stop);
    [[nodiscard]] bool isRead() const { return reader_ != 0; }
    /// Starts the reader as soon as that is possible, if there is none. Its waits can be cancelled.
    void listenAfterAll();

    /// Waits half a minute for the requester, a second when the daemon stops. Its waits can be cancelled.
    void answer(int code, const std::string& text) const;

  private:
    struct Request {
        std::string text;
        bool overdue = false;  ///< its writer was given up before it had ended
        bool isLost = false;   ///< there was no memory for it
    };

    void makePipes(Stop before);
    void makeInputFifo();
    void makeLockFile() const;
    std::optional<std::string> removeFolder();

    void startReader(Retry::Attempts attempts, void* (*body)(void*));
    void endReader();
    [[noreturn]] static void* commandLineAnalyser(void* channel);
    [[noreturn]] static void* pipesMaker(void* channel);
    [[noreturn]] void keepReading();
    void readRequests();
    [[nodiscard]] bool readRequest(FifoReader& reader, Request& request) const;
    void answerRequest(const Request& request);
    [[nodiscard]] std::optional<Answer> processRequest(const Request& request);
    void respond(int code, const std::string& text, std::int64_t patienceMilliseconds) const;
    void releaseRequesterLock() const;

    [[nodiscard]] const std::string& id() const;
    [[nodiscard]] std::string folderPath() const;
    [[nodiscard]] std::string pathOf(const std::string& name) const;
    [[nodiscard]] std::string inputName() const { return inputFifoOf(id()); }
    [[nodiscard]] std::string outputName() const { return outputFifoOf(id()); }
    [[nodiscard]] std::string lockName() const { return requesterLockOf(id()); }

    const ServiceConfiguration& configuration_;
    std::mutex& serviceMutex_;
    Retry& retry_;
    Execute execute_;
    /// The service's pipes folder, which its management group may write: held open while the service has one,
    /// so that nothing there is reached by a path.
    FolderPtr pipes_;
    pthread_t reader_ = 0;  // 0: no thread
};

}  // namespace keywarden
