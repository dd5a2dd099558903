/* Preloaded into the daemon: fails one call of one function of the C library, once, as a test asks.
 *
 * The test and this library share the file that KWTEST_FAULTS names when the program is loaded (struct
 * Control). Calls are counted from the moment at which the test has cleared the counts; the one whose number
 * is `nth` fails with `error`. Programs that the daemon runs are left alone. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define FUNCTIONS(F)                                                                                         \
    F(access)                                                                                                \
    F(calloc) F(chmod) F(chown) F(clock_nanosleep) F(close) F(dlopen) F(dup) F(dup3) F(eventfd) F(fchmod)    \
        F(fchmodat) F(fchown) F(fchownat) F(fdopendir) F(flock) F(fopen) F(fork) F(fstat) F(fstatat)         \
            F(fsync) F(getgrnam_r) F(getpwnam_r) F(getpwuid_r) F(lchown) F(lstat) F(malloc) F(memfd_create)  \
                F(mkdir) F(mkdirat) F(mkfifo) F(mkfifoat) F(nftw) F(open) F(openat) F(opendir) F(pipe2)      \
                    F(poll) F(posix_spawn) F(prctl) F(pread) F(pthread_create) F(read) F(readdir) F(realloc) \
                        F(remove) F(rename) F(renameat) F(setgroups) F(setregid) F(setreuid) F(signalfd)     \
                            F(stat) F(statx) F(syscall) F(unlink) F(unlinkat) F(waitpid) F(write) F(writev)

#define NUMBER(name) k_##name,
enum Function { FUNCTIONS(NUMBER) kFunctions };

#define NAME(name) #name,
static const char* const names[] = {FUNCTIONS(NAME)};

enum { kFrames = 24, kNameSize = 24, kListed = 80 };

struct Listed {
    char name[kNameSize];
    uint64_t calls;
};

/* Read and written by the test with the same layout. */
struct Control {
    char armed[kNameSize];
    uint64_t nth;
    int64_t error;
    uint64_t fired;
    uint64_t frames[kFrames]; /* where from, relative to the program's load address */
    char detail[128];         /* the path that the failed call was about, when it has one */
    struct Listed listed[kListed];
};

int __poll_chk(struct pollfd* files, nfds_t count, int wait, size_t room);
ssize_t __read_chk(int file, void* data, size_t size, size_t room);

static struct Control* control;
static uint64_t program;
/* Inside of this library, or of the test's own clock. */
static __thread int exempt;

static int find_program(struct dl_phdr_info* info, size_t size, void* unused) {
    (void)size;
    (void)unused;
    program = info->dlpi_addr;
    return 1;
}

__attribute__((constructor)) static void load(void) {
    const char* const path = getenv("KWTEST_FAULTS");
    if (path == NULL)
        return;
    ++exempt;
    const int file = open(path, O_RDWR | O_CLOEXEC);
    unsetenv("KWTEST_FAULTS");
    unsetenv("LD_PRELOAD");
    if (file < 0)
        abort();
    void* const place = mmap(NULL, sizeof(struct Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (place == MAP_FAILED)
        abort();
    dl_iterate_phdr(find_program, NULL);
    /* The first use of it loads another library. */
    void* frames[2];
    backtrace(frames, 2);
    struct Control* const shared = place;
    for (int number = 0; number < kFunctions; ++number)
        strcpy(shared->listed[number].name, names[number]);
    control = shared;
    --exempt;
}

static void note(const char* detail) {
    void* frames[kFrames + 2];
    const int count = backtrace(frames, kFrames + 2);
    for (int index = 2; index < count; ++index)
        control->frames[index - 2] = (uint64_t)(uintptr_t)frames[index] - program;
    if (detail != NULL)
        strncpy(control->detail, detail, sizeof control->detail - 1);
}

static int fails(enum Function function, const char* detail) {
    if (control == NULL || exempt > 0)
        return 0;
    const uint64_t call = __atomic_add_fetch(&control->listed[function].calls, 1, __ATOMIC_SEQ_CST);
    if (call != control->nth || strcmp(control->armed, names[function]) != 0)
        return 0;
    ++exempt;
    note(detail);
    --exempt;
    control->fired = 1;
    errno = (int)control->error;
    return 1;
}

/* The C library's own function of this name. */
static void* real(const char* name) {
    ++exempt;
    void* const function = dlsym(RTLD_NEXT, name);
    --exempt;
    if (function == NULL)
        abort();
    return function;
}

#define REAL(name)                 \
    static __typeof__(&name) next; \
    if (next == NULL)              \
    next = (__typeof__(&name))real(#name)

/* One function of fixed arguments: what it counts as, what a failure returns, what it is about. */
#define SIMPLE(type, name, counted, failure, detail, parameters, arguments) \
    type name parameters {                                                  \
        REAL(name);                                                         \
        return fails(k_##counted, detail) ? (failure) : next arguments;     \
    }

SIMPLE(int, access, access, -1, path, (const char* path, int mode), (path, mode))
SIMPLE(int, chmod, chmod, -1, path, (const char* path, mode_t mode), (path, mode))
SIMPLE(int, chown, chown, -1, path, (const char* path, uid_t user, gid_t group), (path, user, group))
SIMPLE(int, clock_nanosleep, clock_nanosleep, errno, NULL,
       (clockid_t clock, int flags, const struct timespec* wait, struct timespec* rest),
       (clock, flags, wait, rest))
SIMPLE(void*, dlopen, dlopen, NULL, path, (const char* path, int flags), (path, flags))
SIMPLE(int, dup, dup, -1, NULL, (int file), (file))
SIMPLE(int, dup3, dup3, -1, NULL, (int file, int other, int flags), (file, other, flags))
SIMPLE(int, eventfd, eventfd, -1, NULL, (unsigned value, int flags), (value, flags))
SIMPLE(int, fchmod, fchmod, -1, NULL, (int file, mode_t mode), (file, mode))
SIMPLE(int, fchmodat, fchmodat, -1, path, (int folder, const char* path, mode_t mode, int flags),
       (folder, path, mode, flags))
SIMPLE(int, fchown, fchown, -1, NULL, (int file, uid_t user, gid_t group), (file, user, group))
SIMPLE(int, fchownat, fchownat, -1, path, (int folder, const char* path, uid_t user, gid_t group, int flags),
       (folder, path, user, group, flags))
SIMPLE(DIR*, fdopendir, fdopendir, NULL, NULL, (int file), (file))
SIMPLE(int, flock, flock, -1, NULL, (int file, int operation), (file, operation))
SIMPLE(pid_t, fork, fork, -1, NULL, (void), ())
SIMPLE(int, fstat, fstat, -1, NULL, (int file, struct stat* info), (file, info))
SIMPLE(int, fstat64, fstat, -1, NULL, (int file, struct stat64* info), (file, info))
SIMPLE(int, fstatat, fstatat, -1, path, (int folder, const char* path, struct stat* info, int flags),
       (folder, path, info, flags))
SIMPLE(int, fstatat64, fstatat, -1, path, (int folder, const char* path, struct stat64* info, int flags),
       (folder, path, info, flags))
SIMPLE(int, fsync, fsync, -1, NULL, (int file), (file))
SIMPLE(int, getgrnam_r, getgrnam_r, (*found = NULL, errno), name,
       (const char* name, struct group* entry, char* buffer, size_t size, struct group** found),
       (name, entry, buffer, size, found))
SIMPLE(int, getpwnam_r, getpwnam_r, (*found = NULL, errno), name,
       (const char* name, struct passwd* entry, char* buffer, size_t size, struct passwd** found),
       (name, entry, buffer, size, found))
SIMPLE(int, getpwuid_r, getpwuid_r, (*found = NULL, errno), NULL,
       (uid_t user, struct passwd* entry, char* buffer, size_t size, struct passwd** found),
       (user, entry, buffer, size, found))
SIMPLE(int, lchown, lchown, -1, path, (const char* path, uid_t user, gid_t group), (path, user, group))
SIMPLE(int, lstat, lstat, -1, path, (const char* path, struct stat* info), (path, info))
SIMPLE(int, lstat64, lstat, -1, path, (const char* path, struct stat64* info), (path, info))
SIMPLE(int, memfd_create, memfd_create, -1, name, (const char* name, unsigned flags), (name, flags))
SIMPLE(int, mkdir, mkdir, -1, path, (const char* path, mode_t mode), (path, mode))
SIMPLE(int, mkdirat, mkdirat, -1, path, (int folder, const char* path, mode_t mode), (folder, path, mode))
SIMPLE(int, mkfifo, mkfifo, -1, path, (const char* path, mode_t mode), (path, mode))
SIMPLE(int, mkfifoat, mkfifoat, -1, path, (int folder, const char* path, mode_t mode), (folder, path, mode))
SIMPLE(int, nftw, nftw, -1, path, (const char* path, __nftw_func_t visit, int folders, int flags),
       (path, visit, folders, flags))
SIMPLE(int, nftw64, nftw, -1, path, (const char* path, __nftw64_func_t visit, int folders, int flags),
       (path, visit, folders, flags))
SIMPLE(DIR*, opendir, opendir, NULL, path, (const char* path), (path))
SIMPLE(int, pipe2, pipe2, -1, NULL, (int ends[2], int flags), (ends, flags))
SIMPLE(int, poll, poll, -1, NULL, (struct pollfd * files, nfds_t count, int wait), (files, count, wait))
SIMPLE(int, posix_spawn, posix_spawn, errno, path,
       (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
        const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[]),
       (pid, path, actions, attributes, arguments, environment))
SIMPLE(ssize_t, pread, pread, -1, NULL, (int file, void* data, size_t size, off_t place),
       (file, data, size, place))
SIMPLE(ssize_t, pread64, pread, -1, NULL, (int file, void* data, size_t size, off64_t place),
       (file, data, size, place))
SIMPLE(int, pthread_create, pthread_create, errno, NULL,
       (pthread_t * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument),
       (thread, attributes, start, argument))
SIMPLE(struct dirent*, readdir, readdir, NULL, NULL, (DIR * folder), (folder))
SIMPLE(struct dirent64*, readdir64, readdir, NULL, NULL, (DIR * folder), (folder))
SIMPLE(int, remove, remove, -1, path, (const char* path), (path))
SIMPLE(int, rename, rename, -1, path, (const char* path, const char* to), (path, to))
SIMPLE(int, renameat, renameat, -1, path, (int folder, const char* path, int other, const char* to),
       (folder, path, other, to))
SIMPLE(int, setgroups, setgroups, -1, NULL, (size_t count, const gid_t* groups), (count, groups))
SIMPLE(int, setregid, setregid, -1, NULL, (gid_t group, gid_t effective), (group, effective))
SIMPLE(int, setreuid, setreuid, -1, NULL, (uid_t user, uid_t effective), (user, effective))
SIMPLE(int, signalfd, signalfd, -1, NULL, (int file, const sigset_t* set, int flags), (file, set, flags))
SIMPLE(int, stat, stat, -1, path, (const char* path, struct stat* info), (path, info))
SIMPLE(int, stat64, stat, -1, path, (const char* path, struct stat64* info), (path, info))
SIMPLE(int, statx, statx, -1, path,
       (int folder, const char* path, int flags, unsigned mask, struct statx* info),
       (folder, path, flags, mask, info))
SIMPLE(int, unlink, unlink, -1, path, (const char* path), (path))
SIMPLE(int, unlinkat, unlinkat, -1, path, (int folder, const char* path, int flags), (folder, path, flags))
SIMPLE(pid_t, waitpid, waitpid, -1, NULL, (pid_t pid, int* status, int options), (pid, status, options))
SIMPLE(ssize_t, writev, writev, -1, NULL, (int file, const struct iovec* parts, int count),
       (file, parts, count))

/* Pipes and counters do not fail like disks: there it is not the moment. */
static int fails_on(enum Function function, int file) {
    struct stat info;
    if (!fails(function, NULL))
        return 0;
    const int error = errno;
    ++exempt;
    const int plain =
        fstat(file, &info) == 0 && (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) || S_ISCHR(info.st_mode));
    --exempt;
    errno = plain ? error : EAGAIN;
    return 1;
}

ssize_t read(int file, void* data, size_t size) {
    REAL(read);
    return fails_on(k_read, file) ? -1 : next(file, data, size);
}

ssize_t write(int file, const void* data, size_t size) {
    REAL(write);
    return fails_on(k_write, file) ? -1 : next(file, data, size);
}

/* What a build that checks its buffers calls instead. */
SIMPLE(int, __poll_chk, poll, -1, NULL, (struct pollfd * files, nfds_t count, int wait, size_t room),
       (files, count, wait, room))

ssize_t __read_chk(int file, void* data, size_t size, size_t room) {
    REAL(__read_chk);
    return fails_on(k_read, file) ? -1 : next(file, data, size, room);
}

/* A failed close has closed nevertheless. */
int close(int file) {
    REAL(close);
    const int result = next(file);
    return fails(k_close, NULL) ? -1 : result;
}

static mode_t mode_of(int flags, va_list more) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(more, mode_t) : 0;
}

#define OPEN(name)                                                 \
    int name(const char* path, int flags, ...) {                   \
        REAL(name);                                                \
        va_list more;                                              \
        va_start(more, flags);                                     \
        const mode_t mode = mode_of(flags, more);                  \
        va_end(more);                                              \
        return fails(k_open, path) ? -1 : next(path, flags, mode); \
    }
OPEN(open)
OPEN(open64)

#define OPENAT(name)                                                         \
    int name(int folder, const char* path, int flags, ...) {                 \
        REAL(name);                                                          \
        va_list more;                                                        \
        va_start(more, flags);                                               \
        const mode_t mode = mode_of(flags, more);                            \
        va_end(more);                                                        \
        return fails(k_openat, path) ? -1 : next(folder, path, flags, mode); \
    }
OPENAT(openat)
OPENAT(openat64)

long syscall(long number, ...) {
    REAL(syscall);
    va_list more;
    va_start(more, number);
    long a[6];
    for (int index = 0; index < 6; ++index)
        a[index] = va_arg(more, long);
    va_end(more);
    return fails(k_syscall, NULL) ? -1 : next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

int prctl(int option, ...) {
    REAL(prctl);
    va_list more;
    va_start(more, option);
    unsigned long a[4];
    for (int index = 0; index < 4; ++index)
        a[index] = va_arg(more, unsigned long);
    va_end(more);
    return fails(k_prctl, NULL) ? -1 : next(option, a[0], a[1], a[2], a[3]);
}

/* The test's clock is a file, which the daemon knows nothing of: none of its calls fail or count. */
#define FOPEN(name)                                            \
    FILE* name(const char* path, const char* mode) {           \
        REAL(name);                                            \
        if (strstr(path, "test-clock-offset") != NULL) {       \
            ++exempt;                                          \
            FILE* const file = next(path, mode);               \
            if (file == NULL)                                  \
                --exempt;                                      \
            return file;                                       \
        }                                                      \
        return fails(k_fopen, path) ? NULL : next(path, mode); \
    }
FOPEN(fopen)
FOPEN(fopen64)

int fclose(FILE* file) {
    REAL(fclose);
    const int result = next(file);
    if (exempt > 0)
        --exempt;
    return result;
}

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* place, size_t size);

void* malloc(size_t size) {
    return fails(k_malloc, NULL) ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails(k_calloc, NULL) ? NULL : __libc_calloc(count, size);
}

void* realloc(void* place, size_t size) {
    return fails(k_realloc, NULL) ? NULL : __libc_realloc(place, size);
}
