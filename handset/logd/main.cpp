// The log daemon of a handset: receives records from every process and appends them to the log journal, which logcat and
// tests read. A service of init; ends only by a signal. One thread, which polls all sockets.
// State: the journal's descriptor and size, and the connections of its readers.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <vector>

#include "handset/common/paths.h"
#include "handset/logd/entry.h"
#include "handset/logd/wire.h"

static const uid_t kLogdUser = 1036;
static const gid_t kLogGroup = 1007;
static const int kReceiveBytes = 8 << 20;
static const int kMaxBatch = 128;  // records written at once
static const int kPriority = -19;
static const off_t kMaxJournal = 256 << 20;  // bytes on disk; older ones are freed
static const off_t kFreeStep = 16 << 20;

static int m_journal = -1;
static off_t m_size = 0;
static std::vector<int> m_readers;

static int open_socket(const char *path, int type, mode_t mode) {
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    unlink(path);  // a killed daemon leaves its socket
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0 ||
        chmod(path, mode) != 0 || chown(path, kLogdUser, kLogdUser) != 0) {
        return -1;
    }
    return fd;
}

static int open_write_socket() {
    const int fd = open_socket(LOG_WRITE_SOCKET, SOCK_DGRAM, 0222);
    const int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
        return -1;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof(kReceiveBytes)) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof(kReceiveBytes));
    }
    return fd;
}

static int open_read_socket() {
    const int fd = open_socket(LOG_READ_SOCKET, SOCK_SEQPACKET, 0666);
    return fd >= 0 && listen(fd, 64) == 0 ? fd : -1;
}

// ---- the journal

static void append(const std::string &lines) {
    for (size_t done = 0; done < lines.size();) {
        const ssize_t written = write(m_journal, lines.data() + done, lines.size() - done);
        if (written < 0 && errno != EINTR) {
            return;
        }
        done += written > 0 ? static_cast<size_t>(written) : 0;
        m_size += written > 0 ? written : 0;
    }
}

// The journal's size and offsets only grow, so that readers keep their positions; its oldest blocks are freed.
static void free_oldest(off_t before) {
    if (m_size / kFreeStep != before / kFreeStep && m_size > kMaxJournal) {
        fallocate(m_journal, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, m_size - kMaxJournal);
    }
}

// The log group reads the journal, as logcat does for the agent.
static bool open_journal() {
    m_journal = open(LOG_JOURNAL, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (m_journal < 0 || fchmod(m_journal, 0640) != 0 || fchown(m_journal, 0, kLogGroup) != 0) {
        return false;
    }
    m_size = lseek(m_journal, 0, SEEK_END);
    char last = '\n';
    if (m_size > 0 && pread(m_journal, &last, 1, m_size - 1) == 1 && last != '\n') {
        append("\n");  // of a line that a killed daemon has left incomplete
    }
    return true;
}

// ---- records and readers

// Appends the line of one datagram, cut to the longest record. False when there is none.
static bool receive_record(int socket, std::string *lines) {
    char record[sizeof(log_record_header) + kLogPayloadMax];
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred))];
    struct iovec part = {record, sizeof(record)};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t length = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    if (length < 0) {
        return false;
    }
    struct cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_CREDENTIALS) {
        return true;
    }
    struct ucred sender;
    memcpy(&sender, CMSG_DATA(header), sizeof(sender));
    const auto offset = static_cast<uint64_t>(m_size) + lines->size();
    entry_append_line(record, static_cast<size_t>(length), sender, offset + 1, lines);
    return true;
}

static void receive_records(int socket) {
    std::string lines;
    for (int i = 0; i < kMaxBatch && receive_record(socket, &lines); i++) {
    }
    if (lines.empty()) {
        return;
    }
    const off_t before = m_size;
    append(lines);
    free_oldest(before);
    for (const int reader : m_readers) {
        send(reader, "", 1, MSG_NOSIGNAL | MSG_DONTWAIT);  // a reader with a full socket has been woken already
    }
}

static void close_reader(size_t index) {
    close(m_readers[index]);
    m_readers.erase(m_readers.begin() + static_cast<std::ptrdiff_t>(index));
}

static void serve(int write_socket, int read_socket) {
    for (;;) {
        std::vector<struct pollfd> set = {{write_socket, POLLIN, 0}, {read_socket, POLLIN, 0}};
        for (const int reader : m_readers) {
            set.push_back({reader, POLLIN, 0});
        }
        if (poll(set.data(), set.size(), -1) < 0) {
            continue;
        }
        for (size_t i = set.size(); i-- > 2;) {
            if (set[i].revents != 0) {
                close_reader(i - 2);  // readers send nothing: it has gone
            }
        }
        if (set[1].revents != 0) {
            const int reader = accept4(read_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (reader >= 0) {
                m_readers.push_back(reader);
            }
        }
        if (set[0].revents != 0) {
            receive_records(write_socket);
        }
    }
}

int main() {
    // A sender drops an entry when the queue of some hundred records is full. On a busy machine only a real-time thread
    // reads it in time.
    const struct sched_param lowest = {1};
    if (sched_setscheduler(0, SCHED_FIFO, &lowest) != 0) {
        setpriority(PRIO_PROCESS, 0, kPriority);
    }
    const int read_socket = open_read_socket();
    const int write_socket = open_journal() && read_socket >= 0 ? open_write_socket() : -1;  // init waits for this one
    if (write_socket < 0) {
        perror("logd");
        return 1;
    }
    serve(write_socket, read_socket);
}
