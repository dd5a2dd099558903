// A private key is never readable by others, not for an instant, whatever the moment at which one looks.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>

#include "ServerFixture.h"
#include "support/UniqueFd.h"

namespace servertest {

using keywarden::UniqueFd;

namespace {

constexpr unsigned kInstallations = 1000;

/// Looks without a pause at every name in a folder, and at every name that inotify tells of, while others
/// write. A name that holds ".key" carries a key, under its final or a temporary name.
class KeyWatch {
  public:
    explicit KeyWatch(const std::string& folder)
        : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
          events_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
          keyGroup_(::getgrnam(kKeyGroup)->gr_gid) {
        EXPECT_TRUE(folder_);
        EXPECT_GE(::inotify_add_watch(events_.get(), folder.c_str(),
                                      IN_CREATE | IN_ATTRIB | IN_OPEN | IN_MODIFY | IN_MOVED_TO),
                  0);
        watcher_ = std::thread([this] { run(); });
        while (!running_)
            std::this_thread::yield();
    }
    KeyWatch(const KeyWatch&) = delete;
    KeyWatch& operator=(const KeyWatch&) = delete;
    ~KeyWatch() { stop(); }

    void stop() {
        stopping_ = true;
        if (watcher_.joinable())
            watcher_.join();
    }

    // After stop().
    [[nodiscard]] const std::set<std::string>& offences() const { return offences_; }
    [[nodiscard]] unsigned looks() const { return looks_; }
    [[nodiscard]] unsigned temporaryLooks() const { return temporaryLooks_; }
    [[nodiscard]] unsigned created() const { return created_; }

  private:
    void run() {
        running_ = true;
        while (!stopping_) {
            readEvents();
            lookAtAll();
        }
        readEvents();
        lookAtAll();
    }

    void readEvents() {
        alignas(inotify_event) std::array<char, 65536> buffer{};
        ssize_t size = 0;
        while ((size = ::read(events_.get(), buffer.data(), buffer.size())) > 0) {
            for (ssize_t at = 0; at < size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(&buffer[static_cast<size_t>(at)]);
                if (event->len > 0) {
                    created_ += (event->mask & IN_CREATE) != 0 && isKey(event->name) ? 1U : 0U;
                    look(event->name);
                }
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
    }

    void lookAtAll() {
        DIR* const listing = ::fdopendir(::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (listing == nullptr)
            return;
        while (const dirent* const entry = ::readdir(listing))
            look(entry->d_name);
        ::closedir(listing);
    }

    static bool isKey(const char* name) { return std::strstr(name, ".key") != nullptr; }

    void look(const char* name) {
        struct stat info {};
        if (!isKey(name) || ::fstatat(folder_.get(), name, &info, AT_SYMLINK_NOFOLLOW) != 0)
            return;
        ++looks_;
        if (name[0] == '.')
            ++temporaryLooks_;
        const unsigned mode = info.st_mode & 07777U;
        const bool groupCanRead = (mode & 0070U) != 0;
        if ((mode & ~0640U) != 0 || (groupCanRead && info.st_gid != keyGroup_))
            offences_.insert(std::string(name) + " mode " + std::to_string(mode) + " group " +
                             std::to_string(info.st_gid));
    }

    UniqueFd folder_;
    UniqueFd events_;
    gid_t keyGroup_;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopping_{false};
    std::set<std::string> offences_;
    unsigned looks_ = 0;
    unsigned temporaryLooks_ = 0;
    unsigned created_ = 0;
    std::thread watcher_;
};

class ServerKeyRights : public ServerTest {};

}  // namespace

TEST_F(ServerKeyRights, KeyIsNeverWiderThan0640InAThousandInstallations) {
    start();
    const std::array<MadePair, 2> pairs = {makePair("one.example"), makePair("two.example")};
    const auto network = noNetwork();
    KeyWatch watch(store().certificateDirectoryPath());
    for (unsigned i = 0; i < kInstallations; ++i) {
        const MadePair& pair = pairs[i % 2];
        server().installCertificate(pair.certificate, pair.key, network);
    }
    watch.stop();
    EXPECT_EQ(std::set<std::string>(), watch.offences());
    // The watch did see what it has to judge.
    EXPECT_GE(watch.created(), kInstallations);
    EXPECT_GT(watch.looks(), kInstallations);
    EXPECT_GT(watch.temporaryLooks(), kInstallations / 10);
}

TEST_F(ServerKeyRights, KeyOfAPendingRequestIsNeverWiderThan0640) {
    start();
    KeyWatch watch(store().tmpDirectoryPath());
    for (unsigned i = 0; i < 100; ++i)
        server().createCsr();
    watch.stop();
    EXPECT_EQ(std::set<std::string>(), watch.offences());
    EXPECT_GE(watch.created(), 100U);
    EXPECT_GT(watch.looks(), 100U);
}

}  // namespace servertest
