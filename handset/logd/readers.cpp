// One thread serves all readers with poll: none of them can hold up another, or the thread that takes records in.
// State: the list of readers (this thread only). A reader that falls behind misses what its ring drops meanwhile.
#include "handset/logd/readers.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <vector>

static constexpr gid_t kLogGroup = 1007;
static constexpr uid_t kSystemUser = 1000;
static constexpr gid_t kLogdGroup = 1036;
static constexpr int kTurnMax = 256;  // entries a reader gets before the others have their turn

struct reader {
    int fd = -1;
    bool has_asked = false;
    bool is_full = false;  // its socket takes no more for the moment
    bool is_over = false;
    log_request request;
    uint64_t next = 0;  // number of the first entry that it has not seen
};

int readers_open() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) {
        return -1;
    }
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kLogReadSocket);
    unlink(kLogReadSocket);
    const mode_t old_umask = umask(0111);
    const bool is_ready =
        bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0 && listen(fd, 64) == 0;
    umask(old_umask);
    if (!is_ready) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    (void)!chown(kLogReadSocket, kLogdGroup, kLogdGroup);
    return fd;
}

static unsigned parse_buffers(const char *list) {
    unsigned buffers = 0;
    for (;;) {
        char *end;
        const unsigned long number = strtoul(list, &end, 10);
        if (end == list) {
            return buffers;
        }
        buffers |= number < kLogBufferCount ? 1u << number : 0;
        if (*end != ',') {
            return buffers;
        }
        list = end + 1;
    }
}

static uint64_t parse_stamp(const char *text) {
    char *end;
    uint64_t stamp = strtoull(text, &end, 10) * 1000000000;
    if (*end != '.') {
        return stamp;
    }
    uint64_t unit = 100000000;
    for (end++; *end >= '0' && *end <= '9' && unit != 0; end++, unit /= 10) {
        stamp += static_cast<unsigned>(*end - '0') * unit;
    }
    return stamp;
}

bool readers_parse(const char *text, log_request *out) {
    *out = log_request();
    out->is_dump = strncmp(text, "dumpAndClose", 12) == 0;
    if (!out->is_dump && strncmp(text, "stream", 6) != 0) {
        return false;
    }
    const char *lids = strstr(text, " lids=");
    const char *tail = strstr(text, " tail=");
    const char *start = strstr(text, " start=");
    const char *pid = strstr(text, " pid=");
    out->query.buffers = lids != nullptr ? parse_buffers(lids + 6) : (1u << kLogBufferCount) - 1;
    out->has_tail = tail != nullptr;
    out->tail = tail != nullptr ? strtoul(tail + 6, nullptr, 10) : 0;
    out->query.after_ns = start != nullptr ? parse_stamp(start + 7) : 0;
    out->query.pid = pid != nullptr ? static_cast<pid_t>(strtol(pid + 5, nullptr, 10)) : 0;
    return true;
}

static bool is_trusted_group(gid_t group) {
    return group == 0 || group == kSystemUser || group == kLogGroup;
}

// Root, the system user and the log group (also as a supplementary one) see everything, others their own entries.
static void apply_rights(int fd, log_query *query) {
    struct ucred peer = {};
    socklen_t size = sizeof peer;
    query->uid = static_cast<uid_t>(-1);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == -1) {
        return;
    }
    query->uid = peer.uid;
    query->all_users = peer.uid == 0 || peer.uid == kSystemUser || peer.uid == kLogGroup || is_trusted_group(peer.gid);
    gid_t groups[64];
    size = sizeof groups;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &size) == 0) {
        for (size_t i = 0; i < size / sizeof groups[0]; i++) {
            query->all_users = query->all_users || is_trusted_group(groups[i]);
        }
    }
}

static void take_request(reader *from) {
    char text[256];
    const ssize_t length = recv(from->fd, text, sizeof text - 1, MSG_DONTWAIT);
    if (length == -1 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (length <= 0 || from->has_asked) {  // gone, or a second request, which nobody makes
        from->is_over = true;
        return;
    }
    text[length] = '\0';
    if (!readers_parse(text, &from->request)) {
        from->is_over = true;
        return;
    }
    from->has_asked = true;
    log_query *query = &from->request.query;
    apply_rights(from->fd, query);
    query->stored_until = store_newest();
    from->next = from->request.has_tail ? store_tail(*query, from->request.tail) : 0;
}

// Sends one entry; false when the reader cannot take it now (or never again).
static bool send_entry(reader *to, const log_entry &entry) {
    struct iovec parts[2] = {{const_cast<log_answer_header *>(&entry.header), sizeof entry.header},
                             {const_cast<char *>(entry.payload.data()), entry.payload.size()}};
    struct msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    if (sendmsg(to->fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
        return true;
    }
    to->is_full = errno == EAGAIN || errno == EINTR || errno == ENOBUFS;
    to->is_over = !to->is_full;
    return false;
}

// Gives a reader its next entries. Returns whether there may be more for it at once.
static bool serve(reader *to) {
    log_entry entry;
    for (int i = 0; i < kTurnMax; i++) {
        const uint64_t newest = store_newest();
        if (!store_next(to->request.query, to->next, &entry) ||
            (to->request.is_dump && entry.sequence > to->request.query.stored_until)) {
            to->is_over = to->is_over || to->request.is_dump;
            to->next = std::max(to->next, newest + 1);  // what is not for this reader is not looked at again
            return false;
        }
        if (!send_entry(to, entry)) {
            return false;
        }
        to->next = entry.sequence + 1;
    }
    return true;
}

static void admit(int listener, std::list<reader> *readers) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1) {
        return;
    }
    readers->emplace_back();
    readers->back().fd = fd;
}

static void dismiss(std::list<reader> *readers) {
    for (auto at = readers->begin(); at != readers->end();) {
        if (!at->is_over) {
            ++at;
            continue;
        }
        close(at->fd);
        at = readers->erase(at);
    }
}

// Waits for news, a new reader, a request, room in a full socket or a reader's end.
static void wait_for_work(int listener, int news, std::list<reader> *readers, int limit_ms) {
    std::vector<struct pollfd> set = {{listener, POLLIN, 0}, {news, POLLIN, 0}};
    for (const reader &each : *readers) {
        set.push_back({each.fd, static_cast<short>(POLLIN | (each.is_full ? POLLOUT : 0)), 0});
    }
    if (poll(set.data(), set.size(), limit_ms) <= 0) {
        return;
    }
    size_t i = 2;
    for (reader &each : *readers) {
        const short happened = set[i++].revents;
        if ((happened & POLLOUT) != 0) {
            each.is_full = false;
        }
        if ((happened & (POLLIN | POLLHUP | POLLERR)) != 0) {
            take_request(&each);
        }
    }
    eventfd_t count;
    if (set[1].revents != 0) {
        eventfd_read(news, &count);
    }
    if (set[0].revents != 0) {
        admit(listener, readers);
    }
}

void readers_run(int listener, int news) {
    std::list<reader> readers;
    bool has_more = false;
    for (;;) {
        wait_for_work(listener, news, &readers, has_more ? 0 : -1);
        has_more = false;
        for (reader &each : readers) {
            if (each.has_asked && !each.is_full && !each.is_over) {
                has_more = serve(&each) || has_more;
            }
        }
        dismiss(&readers);
    }
}
