// A user of the device who means harm, as a program of its own: a slower one would lose its races.
//
// usage: hostile_member swap SECONDS TIMES A B [A B ...]      exchanges each pair, in turn, again and again
//        hostile_member plant SECONDS TIMES KIND PATH [...]   makes something wherever there is nothing
//        hostile_member read SECONDS TIMES PATH [PATH ...]    tries to open them for reading
//
// TIMES is how often for each of them, 0: without an end. KIND is folder, full, file, socket, fifo, blank (a
// device of no number) or link:TARGET. Each ends after its seconds or with SIGTERM and prints how often it
// had success.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* kLink = "link:";

volatile sig_atomic_t asked = 0;

double now() {
    timespec moment{};
    ::clock_gettime(CLOCK_MONOTONIC, &moment);
    return static_cast<double>(moment.tv_sec) + static_cast<double>(moment.tv_nsec) / 1e9;
}

/// Whether it is time to leave. Looks at the clock only now and then: the race is run in between.
class End {
  public:
    explicit End(double seconds) : end_(now() + seconds) {}

    bool hasCome() { return asked != 0 || (++looks_ % 64 == 0 && now() >= end_); }

  private:
    double end_;
    unsigned looks_ = 0;
};

bool exchange(const std::string& a, const std::string& b) {
    return ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

/// Tries `act` on one place after the other, until it has succeeded `times` times on each; 0: until the end.
template <typename Act>
long repeat(std::size_t places, long times, End end, Act&& act) {
    std::vector<long> left(places, times);
    long missing = static_cast<long>(places) * times;
    long done = 0;
    while ((times == 0 || missing > 0) && !end.hasCome()) {
        for (std::size_t place = 0; place < places; ++place) {
            if ((times != 0 && left[place] == 0) || !act(place))
                continue;
            --left[place];
            --missing;
            ++done;
        }
    }
    return done;
}

bool makeSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool made = ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(socket);
    return made;
}

bool makeFile(const std::string& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file >= 0)
        ::close(file);
    return file >= 0;
}

// Nobody else may empty it.
bool makeFullFolder(const std::string& path) {
    return ::mkdir(path.c_str(), 0755) == 0 && makeFile(path + "/file");
}

bool make(const std::string& kind, const std::string& path) {
    if (kind.compare(0, std::strlen(kLink), kLink) == 0)
        return ::symlink(kind.c_str() + std::strlen(kLink), path.c_str()) == 0;
    if (kind == "folder")
        return ::mkdir(path.c_str(), 0755) == 0;
    if (kind == "full")
        return makeFullFolder(path);
    if (kind == "file")
        return makeFile(path);
    if (kind == "socket")
        return makeSocket(path);
    if (kind == "fifo")
        return ::mkfifo(path.c_str(), 0600) == 0;
    if (kind == "blank")
        return ::mknod(path.c_str(), S_IFCHR | 0644, makedev(0, 0)) == 0;
    std::fprintf(stderr, "unknown kind: %s\n", kind.c_str());
    std::exit(2);
}

bool canRead(const std::string& path) {
    // What could be read once could be read for longer: the processor is left to those who race.
    ::usleep(200);
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file >= 0)
        ::close(file);
    return file >= 0;
}

long run(const std::vector<std::string>& words) {
    const std::string& what = words.at(0);
    const End end(std::stod(words.at(1)));
    const long times = std::stol(words.at(2));
    const std::vector<std::string> rest(words.begin() + 3, words.end());
    if (what == "plant")
        return repeat(rest.size() - 1, times, end,
                      [&rest](std::size_t place) { return make(rest[0], rest[place + 1]); });
    if (what == "read")
        return repeat(rest.size(), times, end, [&rest](std::size_t place) { return canRead(rest[place]); });
    return repeat(rest.size() / 2, times, end,
                  [&rest](std::size_t place) { return exchange(rest[2 * place], rest[2 * place + 1]); });
}

}  // namespace

int main(int argc, char* argv[]) {
    struct sigaction leave {};
    leave.sa_handler = [](int) { asked = 1; };
    ::sigaction(SIGTERM, &leave, nullptr);
    ::umask(0);
    if (argc < 5)
        return 2;
    // Whoever waits for this line knows that from here on the signal is heeded.
    std::puts("ready");
    std::fflush(stdout);
    std::printf("%ld\n", run({argv + 1, argv + argc}));
    return 0;
}
