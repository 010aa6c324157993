// Wrappers around the calls of the functions under test.
// State: the requests below, set by a test while nothing else runs.
#include "tests/unit/faults.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

static char m_call[32];
static int m_error_a[8];            // of the failures to come, the last one for all that follow
static std::atomic<int> m_next{0};  // index into it
static std::atomic<int> m_bad_closes{0};
static std::atomic<int> m_skip{0};
static std::atomic<int> m_left{0};
static std::atomic<int> m_failed{0};

static std::string m_slave_name;
static std::string m_diverted_part;
static std::string m_diverted_path;
static int m_short_fd = -1;
static size_t m_short_limit = 0;
static char m_last_chown[256];
static std::atomic<bool> m_is_shortened{false};
static std::atomic<int> m_pauses_a[128];  // by length, in 10 ms
static std::atomic<int> m_waits_left{0};
static pid_t m_wait_result = 0;
static int m_wait_status = 0;
static uint64_t m_available = 0;
static long m_block_size = 0;  // 0: the file system's own answer
static long m_nanoseconds = -1;

static void request(const std::string &call, const std::vector<int> &errors, int skip, int times) {
    m_left = 0;
    m_failed = 0;
    m_bad_closes = 0;
    m_next = 0;
    m_last_chown[0] = '\0';
    for (size_t index = 0; index < std::size(m_error_a); index++) {
        m_error_a[index] = errors[index < errors.size() ? index : errors.size() - 1];
    }
    m_skip = skip;
    m_call[call.copy(m_call, sizeof(m_call) - 1)] = '\0';
    m_left = times;
}

void fail_call(const std::string &call, int error, int skip) {
    request(call, {error}, skip, 1);
}

void fail_calls(const std::string &call, const std::vector<int> &errors) {
    request(call, errors, 0, static_cast<int>(errors.size()));
}

void fail_every_call(const std::string &call, int error) {
    request(call, {error}, 0, 1 << 30);
}

int pass_calls() {
    m_left = 0;
    return m_failed;
}

void rename_slaves(const std::string &name) {
    m_slave_name = name;
}

void divert_open(const std::string &last_part, const std::string &path) {
    m_diverted_part = last_part;
    m_diverted_path = path;
}

void shorten_writes(int fd, size_t limit) {
    m_short_fd = fd;
    m_short_limit = limit;
}

std::string last_chown() {
    return m_last_chown;
}

void shorten_pauses(bool is_shortened) {
    for (std::atomic<int> &count : m_pauses_a) {
        count = 0;
    }
    m_is_shortened = is_shortened;
}

int bad_closes() {
    return m_bad_closes;
}

int pauses_of(useconds_t length) {
    return m_pauses_a[length / 10000];
}

void replace_waits(pid_t result, int status, int times) {
    m_wait_result = result;
    m_wait_status = status;
    m_waits_left = times;
}

void describe_space(uint64_t available, long block_size) {
    m_available = available;
    m_block_size = block_size;
}

void stop_nanoseconds(long nanoseconds) {
    m_nanoseconds = nanoseconds;
}

// Whether this call is the one that fails; errno is set then. Neither heap nor locks: forked children come here, too.
static bool fails(const char *call) {
    if (m_left <= 0 || strcmp(call, m_call) != 0 || m_skip.fetch_sub(1) > 0) {
        return false;
    }
    m_left.fetch_sub(1);
    m_failed.fetch_add(1);
    const int last = static_cast<int>(std::size(m_error_a)) - 1;
    const int index = m_next.fetch_add(1);
    errno = m_error_a[index < last ? index : last];
    return true;
}

#define WRAP(type, call, parameters, arguments, failure)         \
    extern "C" type __real_##call parameters;                    \
    extern "C" type __wrap_##call parameters;                    \
    extern "C" type __wrap_##call parameters {                   \
        return fails(#call) ? failure : __real_##call arguments; \
    }

WRAP(int, chmod, (const char *path, mode_t mode), (path, mode), -1)
WRAP(int, symlink, (const char *target, const char *path), (target, path), -1)
WRAP(int, unlink, (const char *path), (path), -1)
WRAP(int, tcgetattr, (int fd, struct termios *attr), (fd, attr), -1)
WRAP(int, tcsetattr, (int fd, int when, const struct termios *attr), (fd, when, attr), -1)
WRAP(int, grantpt, (int fd), (fd), -1)
WRAP(int, unlockpt, (int fd), (fd), -1)
WRAP(ssize_t, read, (int fd, void *bytes, size_t size), (fd, bytes, size), -1)
WRAP(DIR *, opendir, (const char *path), (path), nullptr)
WRAP(void *, malloc, (size_t size), (size), nullptr)
WRAP(pid_t, fork, (), (), -1)
WRAP(int, setgid, (gid_t group), (group), -1)
WRAP(int, setuid, (uid_t user), (user), -1)
WRAP(int, dup2, (int fd, int number), (fd, number), -1)

// These return their error and leave errno alone.
#define WRAP_RETURNING(call, parameters, arguments) \
    extern "C" int __real_##call parameters;        \
    extern "C" int __wrap_##call parameters;        \
    extern "C" int __wrap_##call parameters {       \
        const int saved_errno = errno;              \
        if (!fails(#call)) {                        \
            return __real_##call arguments;         \
        }                                           \
        const int error = errno;                    \
        errno = saved_errno;                        \
        return error;                               \
    }

WRAP_RETURNING(pthread_kill, (pthread_t thread, int signo), (thread, signo))
WRAP_RETURNING(pthread_create, (pthread_t * thread, const pthread_attr_t *attr, void *(*routine)(void *), void *arg),
               (thread, attr, routine, arg))

extern "C" int __real_ptsname_r(int fd, char *name, size_t size);
extern "C" int __wrap_ptsname_r(int fd, char *name, size_t size);
extern "C" int __wrap_ptsname_r(int fd, char *name, size_t size) {
    if (fails("ptsname_r")) {
        return errno;
    }
    if (m_slave_name.empty()) {
        return __real_ptsname_r(fd, name, size);
    }
    name[m_slave_name.copy(name, size - 1)] = '\0';
    return 0;
}

extern "C" int __real_chown(const char *path, uid_t user, gid_t group);
extern "C" int __wrap_chown(const char *path, uid_t user, gid_t group);
extern "C" int __wrap_chown(const char *path, uid_t user, gid_t group) {
    snprintf(m_last_chown, sizeof(m_last_chown), "%s %u:%u", path, user, group);
    return __real_chown(path, user, group);
}

extern "C" ssize_t __real_write(int fd, const void *bytes, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void *bytes, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void *bytes, size_t size) {
    return __real_write(fd, bytes, fd == m_short_fd && size > m_short_limit ? m_short_limit : size);
}

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd);
extern "C" int __wrap_close(int fd) {
    const int result = __real_close(fd);
    m_bad_closes.fetch_add(result != 0 && errno == EBADF ? 1 : 0);
    return result;
}

extern "C" int __real_usleep(useconds_t length);
extern "C" int __wrap_usleep(useconds_t length);
extern "C" int __wrap_usleep(useconds_t length) {
    if (!m_is_shortened || length < 10000) {
        return __real_usleep(length);
    }
    if (length % 10000 == 0 && length / 10000 < sizeof(m_pauses_a) / sizeof(m_pauses_a[0])) {
        m_pauses_a[length / 10000]++;
    }
    return __real_usleep(length / 20);
}

extern "C" pid_t __real_waitpid(pid_t pid, int *status, int options);
extern "C" pid_t __wrap_waitpid(pid_t pid, int *status, int options);
extern "C" pid_t __wrap_waitpid(pid_t pid, int *status, int options) {
    if (m_waits_left <= 0) {
        return __real_waitpid(pid, status, options);
    }
    m_waits_left.fetch_sub(1);
    *status = m_wait_status;
    return m_wait_result;
}

// The calls below have several names; a platform that lacks one never calls it.
#define WRAP_STATFS(call)                                                                        \
    extern "C" int __real_##call(const char *path, struct statfs *buffer) __attribute__((weak)); \
    extern "C" int __wrap_##call(const char *path, struct statfs *buffer);                       \
    extern "C" int __wrap_##call(const char *path, struct statfs *buffer) {                      \
        if (fails("statfs")) {                                                                   \
            return -1;                                                                           \
        }                                                                                        \
        const int result = __real_##call(path, buffer);                                          \
        if (result == 0 && m_block_size != 0) {                                                  \
            buffer->f_bavail = static_cast<decltype(buffer->f_bavail)>(m_available);             \
            buffer->f_bsize = static_cast<decltype(buffer->f_bsize)>(m_block_size);              \
        }                                                                                        \
        return result;                                                                           \
    }

WRAP_STATFS(statfs)
WRAP_STATFS(statfs64)

#define WRAP_CLOCK(call)                                                                       \
    extern "C" int __real_##call(clockid_t clock, struct timespec *now) __attribute__((weak)); \
    extern "C" int __wrap_##call(clockid_t clock, struct timespec *now);                       \
    extern "C" int __wrap_##call(clockid_t clock, struct timespec *now) {                      \
        const int result = __real_##call(clock, now);                                          \
        if (m_nanoseconds >= 0) {                                                              \
            now->tv_nsec = static_cast<decltype(now->tv_nsec)>(m_nanoseconds);                 \
        }                                                                                      \
        return result;                                                                         \
    }

WRAP_CLOCK(clock_gettime)
WRAP_CLOCK(__clock_gettime64)

#define WRAP_FCNTL(call)                                                          \
    extern "C" int __real_##call(int fd, int command, ...) __attribute__((weak)); \
    extern "C" int __wrap_##call(int fd, int command, ...);                       \
    extern "C" int __wrap_##call(int fd, int command, ...) {                      \
        if (fails("fcntl")) {                                                     \
            return -1;                                                            \
        }                                                                         \
        if (command == F_GETFL || command == F_GETFD) {                           \
            return __real_##call(fd, command);                                    \
        }                                                                         \
        va_list arguments;                                                        \
        va_start(arguments, command);                                             \
        const long value = va_arg(arguments, long);                               \
        va_end(arguments);                                                        \
        return __real_##call(fd, command, value);                                 \
    }

WRAP_FCNTL(fcntl)
WRAP_FCNTL(fcntl64)
WRAP_FCNTL(__fcntl_time64)

// Where an open of `path` really goes.
static const char *diverted(const char *path) {
    const size_t length = strlen(path);
    const size_t part = m_diverted_part.size();
    const bool is_meant = part > 0 && strncmp(path, "/proc/", 6) == 0 && length > part &&
                          strcmp(path + length - part, m_diverted_part.c_str()) == 0;
    return is_meant ? m_diverted_path.c_str() : path;
}

#define WRAP_OPEN(call)                                                                   \
    extern "C" int __real_##call(const char *path, int flags, ...) __attribute__((weak)); \
    extern "C" int __wrap_##call(const char *path, int flags, ...);                       \
    extern "C" int __wrap_##call(const char *path, int flags, ...) {                      \
        if (fails("open")) {                                                              \
            return -1;                                                                    \
        }                                                                                 \
        unsigned mode = 0;                                                                \
        if ((flags & O_CREAT) != 0) {                                                     \
            va_list arguments;                                                            \
            va_start(arguments, flags);                                                   \
            mode = va_arg(arguments, unsigned);                                           \
            va_end(arguments);                                                            \
        }                                                                                 \
        return __real_##call(diverted(path), flags, mode);                                \
    }

WRAP_OPEN(open)
WRAP_OPEN(open64)
