// The platform's log library on a PC: sends each entry as one datagram to the log daemon.
// State: the process' socket to the daemon, opened at the first write and inherited by fork.
//
// Can be called from any thread, from a signal handler, and from the child of a threaded process between fork and exec:
// it takes no lock. The socket is published by one compare-exchange and never
// closed or replaced; after a restart of the daemon the same socket is connected again. The text is formatted on the
// stack: vsnprintf into a buffer takes no stream lock, and no heap for integers, characters and strings.
#include <android/log.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "handset/common/paths.h"

static constexpr size_t kTextSize = 1024;  // of a formatted text, its NUL included
static constexpr int kMainBuffer = 0;
static constexpr size_t kHeaderSize = 11;
static constexpr int kInPlaceMs = 5000;

// -1 until the first write, then constant, unless other code of the process closes the descriptor.
static std::atomic<int> m_socket{-1};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler could interrupt the holder of a lock");

static void put_u32(unsigned char *to, uint32_t value) {
    for (unsigned i = 0; i < 4; i++) {
        to[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

// The thread's id, cached as in the platform's C library. initial-exec, since the first use must not allocate.
static thread_local __attribute__((tls_model("initial-exec"))) pid_t m_tid = 0;

static void forget_tid() {
    m_tid = 0;
}

__attribute__((constructor)) static void watch_forks() {
    pthread_atfork(nullptr, nullptr, forget_tid);
}

static uint32_t own_tid() {
    if (m_tid == 0) {
        m_tid = static_cast<pid_t>(syscall(SYS_gettid));
    }
    return static_cast<uint32_t>(m_tid);
}

// u8 buffer, u16 thread, u32 seconds, u32 nanoseconds. The kernel adds pid and uid.
static void put_header(unsigned char (&header)[kHeaderSize], int buffer) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const uint32_t tid = own_tid();
    header[0] = static_cast<unsigned char>(buffer);
    header[1] = static_cast<unsigned char>(tid);
    header[2] = static_cast<unsigned char>(tid >> 8);
    put_u32(header + 3, static_cast<uint32_t>(now.tv_sec));
    put_u32(header + 7, static_cast<uint32_t>(now.tv_nsec));
}

static int connect_daemon(int fd) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/socket/logdw");
    return connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address);
}

// The process' socket, created and connected at the first call; -1 when it cannot be created.
static int open_socket() {
    int fd = m_socket.load();
    if (fd != -1) {
        return fd;
    }
    const int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (made == -1) {
        return -1;
    }
    connect_daemon(made);
    if (m_socket.compare_exchange_strong(fd, made)) {
        return made;
    }
    close(made);  // another thread or a signal handler was first
    return fd;
}

// Repairs the socket after a failed write. When a child has closed all its descriptors the number may be another file's:
// it is forgotten, not closed.
static int reopen_socket(int fd, int error) {
    if (error == EBADF || error == ENOTSOCK) {
        m_socket.compare_exchange_strong(fd, -1);
        return open_socket();
    }
    return connect_daemon(fd) == 0 ? fd : -1;
}

static bool send_parts(int fd, struct iovec *parts, size_t count) {
    struct msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    return sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

// The daemon's queue has the platform's length, except in place: there it has the kernel's default of about ten entries,
// so a full one is waited for.
static bool wait_in_place(int fd) {
    struct pollfd queue = {fd, POLLOUT, 0};
    return access(IN_PLACE_REGISTER, F_OK) == 0 && poll(&queue, 1, kInPlaceMs) == 1;
}

static void deliver(struct iovec *parts, size_t count) {
    int fd = open_socket();
    if (fd == -1) {
        return;
    }
    if (send_parts(fd, parts, count)) {
        return;
    }
    if (errno != EAGAIN) {
        fd = reopen_socket(fd, errno);
        if (fd == -1 || send_parts(fd, parts, count)) {
            return;
        }
    }
    if (errno == EAGAIN && wait_in_place(fd)) {
        send_parts(fd, parts, count);
    }
}

int __android_log_print(int prio, const char *tag, const char *fmt, ...) {
    const int saved = errno;  // formatting may change it; %m means the caller's
    char text[kTextSize];
    va_list arguments;
    va_start(arguments, fmt);
    if (vsnprintf(text, sizeof(text), fmt, arguments) < 0) {
        text[0] = '\0';
    }
    va_end(arguments);
    unsigned char header[kHeaderSize];
    put_header(header, kMainBuffer);
    auto level = static_cast<unsigned char>(prio);
    if (tag == nullptr) {
        tag = "";
    }
    struct iovec parts[] = {
        {header, sizeof(header)}, {&level, 1}, {const_cast<char *>(tag), strlen(tag) + 1}, {text, strlen(text) + 1}};
    deliver(parts, 4);
    errno = saved;
    return 1;
}
