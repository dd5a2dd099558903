// Takes the place of the C library's functions that change what is on a disk, in the whole program.
#include "FaultCalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <memory>
#include <utility>

#include "PowerModel.h"

namespace faults {

namespace {

struct Session {
    std::string durable;
    std::string fleeting;
    Plan plan;
    PowerModel model;
    Calls calls;
};

// Null outside of a session, and while the session itself works on the disk.
Session* current = nullptr;

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

[[noreturn]] void cutPower(Session& session, unsigned luckyFolders) {
    current = nullptr;
    const Tree left = session.model.afterCut(luckyFolders);
    writeTree(session.durable, left);
    // In memory on a device: only the services' own folders are there again before their stores start.
    Tree services;
    for (const auto& [name, entry] : readTree(session.fleeting))
        if (entry.isFolder && name.find('/') == std::string::npos)
            services[name] = entry;
    writeTree(session.fleeting, services);
    ::_exit(kEnded);
}

bool isBelow(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
}

bool counts(const std::string& path) {
    return current != nullptr && (isBelow(path, current->durable) || isBelow(path, current->fleeting) ||
                                  path == current->durable || path == current->fleeting);
}

std::string pathOf(int file) {
    std::array<char, 4096> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
    return size > 0 ? std::string(path.data(), static_cast<std::size_t>(size)) : std::string();
}

bool counts(int file) {
    return current != nullptr && counts(pathOf(file));
}

bool countsAt(int folder, const char* path) {
    if (path[0] == '/' || folder == AT_FDCWD)
        return counts(std::string(path));
    return counts(folder);
}

const Fault* faultAt(const Session& session, unsigned call) {
    const auto found = std::find_if(session.plan.begin(), session.plan.end(),
                                    [call](const Fault& fault) { return fault.call == call; });
    return found == session.plan.end() ? nullptr : &*found;
}

/// One call: `effect` tells the model of its success.
template <typename Call, typename Effect>
auto point(const std::string& name, Call call, Effect effect) -> decltype(call()) {
    Session& session = *std::exchange(current, nullptr);
    session.calls.names.push_back(name);
    const Fault* const fault = faultAt(session, session.calls.count());
    if (fault != nullptr && fault->kind == Fault::Kind::KillBefore)
        ::_exit(kEnded);
    if (fault != nullptr && fault->kind == Fault::Kind::Fail) {
        current = &session;
        errno = fault->error;
        return -1;
    }
    const auto result = call();
    const int error = errno;
    if (result >= 0)
        effect(session.model, result);
    if (fault != nullptr && fault->kind == Fault::Kind::KillAfter)
        ::_exit(kEnded);
    if (fault != nullptr)
        cutPower(session, fault->luckyFolders);
    current = &session;
    errno = error;
    return result;
}

template <typename Call>
auto point(const std::string& name, Call call) -> decltype(call()) {
    return point(name, call, [](PowerModel&, auto) {});
}

bool changes(int flags) {
    return (flags & (O_CREAT | O_TRUNC)) != 0;
}

bool isOpenForWriting(int file) {
    const int flags = ::fcntl(file, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

int openAs(const char* name, int folder, const char* path, int flags, unsigned mode) {
    const auto call = [&] {
        return next<int (*)(int, const char*, int, ...)>(name)(folder, path, flags, mode);
    };
    if (!changes(flags) || !countsAt(folder, path))
        return call();
    return point(std::string(name) + " " + path, call, [flags](PowerModel& model, int file) {
        if ((flags & O_EXCL) != 0)
            model.created(file);
    });
}

template <typename... Arguments>
int onPath(const char* name, int folder, const char* path, Arguments... arguments) {
    const auto call = [&] { return next<int (*)(Arguments...)>(name)(arguments...); };
    return countsAt(folder, path) ? point(std::string(name) + " " + path, call) : call();
}

template <typename... Arguments>
int onFile(const char* name, int file, Arguments... arguments) {
    const auto call = [&] { return next<int (*)(int, Arguments...)>(name)(file, arguments...); };
    return counts(file) ? point(std::string(name) + " " + pathOf(file), call) : call();
}

int sync(const char* name, int file) {
    const auto call = [&] { return next<int (*)(int)>(name)(file); };
    if (!counts(file))
        return call();
    return point(std::string(name) + " " + pathOf(file), call,
                 [file](PowerModel& model, int) { model.synced(file); });
}

std::unique_ptr<Session> armed;

}  // namespace

void arm(const std::string& durable, const std::string& fleeting, const Plan& plan) {
    armed = std::make_unique<Session>(Session{durable, fleeting, plan, PowerModel(durable), Calls()});
    current = armed.get();
}

void mark() {
    if (armed)
        armed->calls.beforeMark = armed->calls.count();
}

Calls disarm() {
    current = nullptr;
    Session& session = *armed;
    const Fault* const fault = faultAt(session, session.calls.count() + 1);
    if (fault != nullptr && fault->kind == Fault::Kind::PowerCut)
        cutPower(session, fault->luckyFolders);
    return session.calls;
}

}  // namespace faults

using namespace faults;

// Under names of their own, since the headers declare some of them otherwise.
#define REPLACES(symbol) __asm__(#symbol)

extern "C" {

int faultsOpen(const char* path, int flags, ...) REPLACES(open);
int faultsOpen64(const char* path, int flags, ...) REPLACES(open64);
int faultsOpenat(int folder, const char* path, int flags, ...) REPLACES(openat);
int faultsOpenat64(int folder, const char* path, int flags, ...) REPLACES(openat64);
ssize_t faultsWrite(int file, const void* data, size_t size) REPLACES(write);
int faultsClose(int file) REPLACES(close);
int faultsFsync(int file) REPLACES(fsync);
int faultsFdatasync(int file) REPLACES(fdatasync);
int faultsRename(const char* from, const char* to) REPLACES(rename);
int faultsRenameat(int fromFolder, const char* from, int toFolder, const char* to) REPLACES(renameat);
int faultsUnlink(const char* path) REPLACES(unlink);
int faultsUnlinkat(int folder, const char* path, int flags) REPLACES(unlinkat);
int faultsRemove(const char* path) REPLACES(remove);
int faultsRmdir(const char* path) REPLACES(rmdir);
int faultsMkdir(const char* path, mode_t mode) REPLACES(mkdir);
int faultsMkdirat(int folder, const char* path, mode_t mode) REPLACES(mkdirat);
int faultsMkfifo(const char* path, mode_t mode) REPLACES(mkfifo);
int faultsChmod(const char* path, mode_t mode) REPLACES(chmod);
int faultsFchmod(int file, mode_t mode) REPLACES(fchmod);
int faultsChown(const char* path, uid_t uid, gid_t gid) REPLACES(chown);
int faultsLchown(const char* path, uid_t uid, gid_t gid) REPLACES(lchown);
int faultsFchown(int file, uid_t uid, gid_t gid) REPLACES(fchown);
int faultsLink(const char* from, const char* to) REPLACES(link);
int faultsLinkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) REPLACES(linkat);
int faultsSymlink(const char* text, const char* path) REPLACES(symlink);
int faultsTruncate(const char* path, off_t size) REPLACES(truncate64);
int faultsFtruncate(int file, off_t size) REPLACES(ftruncate64);

}  // extern "C"

namespace {

unsigned modeOf(int flags, va_list& arguments) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, unsigned) : 0U;
}

}  // namespace

int faultsOpen(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAs("openat", AT_FDCWD, path, flags, mode);
}

int faultsOpen64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAs("openat64", AT_FDCWD, path, flags, mode);
}

int faultsOpenat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAs("openat", folder, path, flags, mode);
}

int faultsOpenat64(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAs("openat64", folder, path, flags, mode);
}

ssize_t faultsWrite(int file, const void* data, size_t size) {
    const auto call = [&] { return next<ssize_t (*)(int, const void*, size_t)>("write")(file, data, size); };
    return counts(file) ? point("write " + pathOf(file), call) : call();
}

int faultsClose(int file) {
    // What a close reports, it has closed all the same.
    const auto call = [&] { return next<int (*)(int)>("close")(file); };
    if (current == nullptr || !isOpenForWriting(file) || !counts(file))
        return call();
    const int result = point("close " + pathOf(file), [] { return 0; });
    const int error = errno;
    call();
    errno = error;
    return result;
}

int faultsFsync(int file) {
    return sync("fsync", file);
}

int faultsFdatasync(int file) {
    return sync("fdatasync", file);
}

int faultsRename(const char* from, const char* to) {
    return onPath("rename", AT_FDCWD, to, from, to);
}

int faultsRenameat(int fromFolder, const char* from, int toFolder, const char* to) {
    return onPath("renameat", toFolder, to, fromFolder, from, toFolder, to);
}

int faultsUnlink(const char* path) {
    return onPath("unlink", AT_FDCWD, path, path);
}

int faultsUnlinkat(int folder, const char* path, int flags) {
    return onPath("unlinkat", folder, path, folder, path, flags);
}

int faultsRemove(const char* path) {
    return onPath("remove", AT_FDCWD, path, path);
}

int faultsRmdir(const char* path) {
    return onPath("rmdir", AT_FDCWD, path, path);
}

int faultsMkdir(const char* path, mode_t mode) {
    return onPath("mkdir", AT_FDCWD, path, path, mode);
}

int faultsMkdirat(int folder, const char* path, mode_t mode) {
    return onPath("mkdirat", folder, path, folder, path, mode);
}

int faultsMkfifo(const char* path, mode_t mode) {
    return onPath("mkfifo", AT_FDCWD, path, path, mode);
}

int faultsChmod(const char* path, mode_t mode) {
    return onPath("chmod", AT_FDCWD, path, path, mode);
}

int faultsFchmod(int file, mode_t mode) {
    return onFile("fchmod", file, mode);
}

int faultsChown(const char* path, uid_t uid, gid_t gid) {
    return onPath("chown", AT_FDCWD, path, path, uid, gid);
}

int faultsLchown(const char* path, uid_t uid, gid_t gid) {
    return onPath("lchown", AT_FDCWD, path, path, uid, gid);
}

int faultsFchown(int file, uid_t uid, gid_t gid) {
    return onFile("fchown", file, uid, gid);
}

int faultsLink(const char* from, const char* to) {
    return onPath("link", AT_FDCWD, to, from, to);
}

int faultsLinkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) {
    return onPath("linkat", toFolder, to, fromFolder, from, toFolder, to, flags);
}

int faultsSymlink(const char* text, const char* path) {
    return onPath("symlink", AT_FDCWD, path, text, path);
}

int faultsTruncate(const char* path, off_t size) {
    return onPath("truncate64", AT_FDCWD, path, path, size);
}

int faultsFtruncate(int file, off_t size) {
    return onFile("ftruncate64", file, size);
}
