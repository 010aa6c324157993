// The platform's log library on a PC: every entry leaves as one datagram to the log daemon.
// Owns the process-wide socket to the daemon (opened at the first write, inherited by fork) and the count of lost entries.
//
// May be called from any thread, from a signal handler and from the child between fork and exec of a threaded process:
// there is no lock that an interrupted or vanished thread could have left held. The shared state is two lock-free
// atomics; the socket is published by one compare-exchange and never closed or replaced afterwards, a lost daemon is
// found again by connecting the very same socket anew. The text is formatted on the stack: vsnprintf into a caller's
// buffer uses no stream lock, and no heap for the integer, character and string conversions that log texts are made of.
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

static constexpr size_t kTextSize = 1024;    // of a formatted text, its NUL included
static constexpr size_t kPayloadMax = 4068;  // of one record, all but its header
static constexpr int32_t kLostTag = 1006;    // events tag under which the number of lost entries is told
static constexpr size_t kHeaderSize = 11;
static constexpr int kInPlaceMs = 5000;
static constexpr size_t kPartMax = 4;  // of one datagram: header and up to three pieces of payload

// -1 until the first write; afterwards the same number for the life of the process, unless someone else closes it.
static std::atomic<int> m_socket{-1};
// Entries dropped since the last time the daemon was told.
static std::atomic<int32_t> m_lost{0};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<int32_t>::is_always_lock_free,
              "a lock inside an atomic could be held by the thread that a handler interrupts");

static void put_u32(unsigned char *to, uint32_t value) {
    for (unsigned i = 0; i < 4; i++) {
        to[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

// The thread's id, asked for once, as the platform's C library keeps it; a forked child asks anew. Needs no allocation.
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

// u8 buffer, u16 thread, u32 seconds, u32 nanoseconds; pid and uid are the kernel's to tell.
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

// The process's socket, made and connected at the first call; -1 when there is none to be had.
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
    close(made);  // another thread, or a handler over this one, was first
    return fd;
}

// Puts the socket right after a failed write. A number that is no socket any more was closed behind our back
// (a child that clears its descriptors): it belongs to others now, so it is forgotten, not closed.
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

// Tells the daemon how many entries were lost, once it takes entries again.
static void report_lost(int fd) {
    const int32_t lost = m_lost.exchange(0);
    if (lost == 0) {
        return;
    }
    unsigned char header[kHeaderSize];
    unsigned char event[9];
    put_header(header, LOG_ID_EVENTS);
    put_u32(event, kLostTag);
    event[4] = 0;  // the value is an int
    put_u32(event + 5, static_cast<uint32_t>(lost));
    struct iovec parts[] = {{header, sizeof header}, {event, sizeof event}};
    if (!send_parts(fd, parts, 2)) {
        m_lost.fetch_add(lost);
    }
}

// The daemon's queue is as long as the platform's, but for handsets in place: there it holds ten entries or so, as the
// container's kernel has it, and a full one is waited for.
static bool wait_in_place(int fd) {
    struct pollfd queue = {fd, POLLOUT, 0};
    return access(IN_PLACE_REGISTER, F_OK) == 0 && poll(&queue, 1, kInPlaceMs) == 1;
}

static void deliver(struct iovec *parts, size_t count) {
    int fd = open_socket();
    if (fd == -1) {
        return;
    }
    report_lost(fd);
    if (send_parts(fd, parts, count)) {
        return;
    }
    if (errno != EAGAIN) {
        fd = reopen_socket(fd, errno);
        if (fd == -1 || send_parts(fd, parts, count)) {
            return;
        }
    }
    if (errno == EAGAIN && !(wait_in_place(fd) && send_parts(fd, parts, count))) {
        m_lost.fetch_add(1);
    }
}

// Cuts the payload (all parts but the first) at what one record carries and sends the datagram.
static int write_record(int buffer, struct iovec (&parts)[kPartMax], size_t count) {
    const int saved = errno;
    unsigned char header[kHeaderSize];
    put_header(header, buffer);
    parts[0] = {header, sizeof header};
    size_t room = kPayloadMax;
    for (size_t i = 1; i < count; i++) {
        if (parts[i].iov_len > room) {
            parts[i].iov_len = room;
        }
        room -= parts[i].iov_len;
    }
    deliver(parts, count);
    errno = saved;
    return 1;
}

static int write_text(int buffer, int prio, const char *tag, const char *text) {
    auto level = static_cast<unsigned char>(prio);
    if (tag == nullptr) {
        tag = "";
    }
    struct iovec parts[kPartMax] = {};
    parts[1] = {&level, 1};
    parts[2] = {const_cast<char *>(tag), strlen(tag) + 1};
    parts[3] = {const_cast<char *>(text), strlen(text) + 1};
    return write_record(buffer, parts, 4);
}

int __android_log_print(int prio, const char *tag, const char *fmt, ...) {
    const int saved = errno;  // formatting may change it; %m means the caller's
    char text[kTextSize];
    va_list arguments;
    va_start(arguments, fmt);
    if (vsnprintf(text, sizeof text, fmt, arguments) < 0) {
        text[0] = '\0';
    }
    va_end(arguments);
    write_text(LOG_ID_MAIN, prio, tag, text);
    errno = saved;
    return 1;
}

int __android_log_write(int prio, const char *tag, const char *text) {
    return write_text(LOG_ID_MAIN, prio, tag, text);
}

int __android_log_buf_write(int buffer, int prio, const char *tag, const char *text) {
    return write_text(buffer, prio, tag, text);
}

int __android_log_bwrite(int32_t tag, const void *payload, size_t length) {
    unsigned char number[4];
    put_u32(number, static_cast<uint32_t>(tag));
    struct iovec parts[kPartMax] = {};
    parts[1] = {number, sizeof number};
    parts[2] = {const_cast<void *>(payload), length};
    return write_record(LOG_ID_EVENTS, parts, 3);
}
