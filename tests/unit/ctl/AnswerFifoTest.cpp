#include "ctl/AnswerFifo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "ctl/Problem.h"
#include "testsupport/Sandbox.h"

using keywardctl::AnswerFifo;
using keywardctl::Problem;
using keywarden::UniqueFd;

namespace {

class Fifo : public testing::Test {
  protected:
    [[nodiscard]] UniqueFd writer() const { return UniqueFd(::open(path.c_str(), O_WRONLY | O_CLOEXEC)); }

    testsupport::Sandbox sandbox;
    const std::string path = sandbox.path("web.out");
};

TEST_F(Fifo, IsMadeForTheGroupAndRemoved) {
    {
        const AnswerFifo fifo(sandbox.path(), "web");
        EXPECT_FALSE(fifo.replacedAnother());
        EXPECT_TRUE(std::filesystem::is_fifo(path));
        EXPECT_EQ(testsupport::Sandbox::mode(path) & 07777U, 0660U);
    }
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path)));
}

TEST_F(Fifo, ReplacesAnEarlierFifoAndSaysSo) {
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const AnswerFifo fifo(sandbox.path(), "web");
    EXPECT_TRUE(fifo.replacedAnother());
}

TEST_F(Fifo, LeavesAnythingElseAlone) {
    sandbox.write("web.out", "mine");
    EXPECT_THROW(AnswerFifo(sandbox.path(), "web"), Problem);
    EXPECT_EQ(testsupport::Sandbox::read(path), "mine");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(sandbox.path("elsewhere"), path);
    EXPECT_THROW(AnswerFifo(sandbox.path(), "web"), Problem);
    EXPECT_TRUE(std::filesystem::is_symlink(path));
}

TEST_F(Fifo, DoesNotRemoveASuccessors) {
    {
        const AnswerFifo fifo(sandbox.path(), "web");
        std::filesystem::rename(path, sandbox.path("moved"));
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    }
    EXPECT_TRUE(std::filesystem::is_fifo(path));
}

TEST_F(Fifo, AnAnswerLongerThanThePipeArrivesWhole) {
    const AnswerFifo fifo(sandbox.path(), "web");
    const std::string sent(std::size_t{3} << 17U, 'x');
    std::thread daemon([this, &sent] {
        const UniqueFd output = writer();
        std::size_t done = 0;
        while (done < sent.size()) {
            const ssize_t count = ::write(output.get(), sent.data() + done, sent.size() - done);
            ASSERT_GT(count, 0);
            done += static_cast<std::size_t>(count);
        }
    });
    std::string received;
    // Before the writer came there is an end, too.
    while (received.size() < sent.size())
        (void)fifo.read(received);
    daemon.join();
    EXPECT_EQ(received, sent);
    EXPECT_FALSE(fifo.read(received));
}

TEST_F(Fifo, TheNextTextAfterAnEndIsNotLost) {
    AnswerFifo fifo(sandbox.path(), "web");
    std::string received;
    for (const char* const text : {"one", "two"}) {
        {
            const UniqueFd output = writer();
            ASSERT_EQ(::write(output.get(), text, 3), 3);
        }
        fifo.reopen();
        (void)fifo.read(received);
    }
    EXPECT_EQ(received, "onetwo");
}

}  // namespace
