// The channel without a service: what reaches whoever executes commands, and what becomes of their answers.
#include <fcntl.h>

#include <atomic>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "ServiceFixture.h"
#include "ThreadShortage.h"
#include "config/ServiceConfiguration.h"
#include "service/ServiceChannel.h"

namespace servicetest {

using keywarden::Answer;
using keywarden::Commands;
using keywarden::Retry;
using keywarden::ServiceConfiguration;
using keywarden::SeverityError;
using testsupport::CapturedLog;
using testsupport::Sandbox;
using Stop = keywarden::ServiceChannel::Stop;
using Attempts = Retry::Attempts;

class ChannelByItself : public ServiceTest {
  protected:
    void SetUp() override {
        ServiceTest::SetUp();
        if (IsSkipped())
            return;
        configure();
        configuration_.emplace(id);
        channel.emplace(*configuration_, serviceMutex_, retry_, [this](Commands& command) {
            heard += command.toMessage() + (isServiceHeld() ? "" : ", not held") + "\n";
            return execute();
        });
        channel->makeFolder();
        CapturedLog::clear();
    }
    void start() { channel->start(Stop::ForGood, Attempts::One); }
    [[nodiscard]] Requester waiting() const {
        Requester requester(id);
        requester.makeOutput();
        requester.openOutput();
        return requester;
    }
    [[nodiscard]] bool hasReader() const {
        const keywarden::UniqueFd input(
            ::open(Requester(id).input().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return static_cast<bool>(input);
    }

    /// What was executed, a line each; to be looked at when its answer has come.
    std::string heard;
    std::function<std::optional<Answer>()> execute = [] { return Answer{26, "a text"}; };

  private:
    bool isServiceHeld() {
        return !std::async(std::launch::async, [this] {
                    const bool isFree = serviceMutex_.try_lock();
                    if (isFree)
                        serviceMutex_.unlock();
                    return isFree;
                }).get();
    }

    std::mutex serviceMutex_;
    Retry retry_;
    std::optional<ServiceConfiguration> configuration_;

  protected:
    std::optional<keywarden::ServiceChannel> channel;
};

TEST_F(ChannelByItself, CommandIsExecutedWithTheServiceHeldAndAnswered) {
    start();
    EXPECT_EQ(ask(request("ca", "add", {"/a file"})), "26 a text");
    channel->stop(Stop::ForReload);
    EXPECT_EQ(heard, request("ca", "add", {"/a file"}) + "\n");
}

TEST_F(ChannelByItself, LineThatIsNoCommandIsAnsweredAndNotExecuted) {
    start();
    EXPECT_EQ(ask("nonsense"), "4 Bad format for command.");
    channel->stop(Stop::ForReload);
    EXPECT_EQ(heard, "");
}

TEST_F(ChannelByItself, CommandThatThrowsIsAnsweredAndTheNextOneIsServed) {
    execute = []() -> std::optional<Answer> { throw std::runtime_error("nothing works"); };
    start();
    const std::string text =
        "std::exception caught while creating command structure for service '" + id + "' nothing works";
    for (int i = 1; i <= 2; ++i) {
        EXPECT_EQ(ask(request("config", "status")), "4 nothing works");
        EXPECT_EQ(CapturedLog::count(SeverityError, text), static_cast<std::size_t>(i));
    }
}

TEST_F(ChannelByItself, AnswerMayComeLater) {
    std::promise<void> done;
    execute = [&done]() -> std::optional<Answer> {
        done.set_value();
        return std::nullopt;
    };
    start();
    Requester requester = waiting();
    ASSERT_TRUE(requester.send(request("config", "reload")));
    done.get_future().wait();
    EXPECT_EQ(requester.receive(std::chrono::milliseconds(200)), "no answer");
    channel->answer(0, "at last");
    EXPECT_EQ(requester.receive(), "0 at last");
}

TEST_F(ChannelByItself, StopForAReloadLeavesWhatTheRequesterHolds) {
    start();
    Requester requester = waiting();
    sandbox().write("pipes/" + id + "/" + id + ".lock", "a mark");
    channel->stop(Stop::ForReload);
    channel->removeFiles(Stop::ForReload);
    EXPECT_FALSE(channel->isRead());
    EXPECT_FALSE(Sandbox::exists(requester.input()));
    EXPECT_TRUE(Sandbox::exists(requester.output()));
    EXPECT_EQ(requester.receive(std::chrono::milliseconds(200)), "no answer");
    channel->start(Stop::ForReload, Attempts::One);
    EXPECT_EQ(Sandbox::read(requester.lock()), "a mark");
    EXPECT_EQ(ask(request("config", "status")), "26 a text");
}

TEST_F(ChannelByItself, StopForGoodAnswersWhoeverWaitsAndLeavesNothing) {
    start();
    Requester requester = waiting();
    channel->stop(Stop::ForGood);
    EXPECT_EQ(requester.receive(), "7 The daemon just terminate");
    EXPECT_FALSE(channel->isRead());
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

TEST_F(ChannelByItself, WithoutAThreadItDoesNotStartAndListensAfterAllWhenThereIsOne) {
    {
        const ThreadShortage shortage;
        EXPECT_EQ(failureOf([this] { start(); }), "Impossible to start the handler for service " + id);
    }
    EXPECT_FALSE(channel->isRead());
    const ThreadShortage shortage(2);
    channel->listenAfterAll();
    EXPECT_EQ(ThreadShortage::attempts(), 2);
    EXPECT_TRUE(channel->isRead());
    EXPECT_EQ(ask(request("config", "status")), "26 a text");
}

TEST_F(ChannelByItself, ReaderEndsWithItAndTheFilesStay) {
    start();
    EXPECT_TRUE(becomes([this] { return hasReader(); }));
    channel.reset();
    EXPECT_FALSE(hasReader());
    EXPECT_TRUE(Sandbox::exists(Requester(id).input()));
}

}  // namespace servicetest
