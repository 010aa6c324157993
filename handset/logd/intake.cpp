// Reads records as they are sent and keeps what has the shape of one.
// Two threads: the taker does nothing but empty the socket, the keeper may wait for the rings' lock and for the
// journal's file. State: the queue between both, guarded by m_lock, which is held only to append bytes or to swap. The
// taker uses no heap once it runs: the heap's locks too could be held by a thread that is not scheduled.
#include "handset/logd/intake.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "handset/logd/journal.h"
#include "handset/logd/records.h"
#include "handset/logd/store.h"

static constexpr int kReceiveBytes = 8 << 20;
static constexpr int kBurstMax = 128;         // records that are handed to the keeper at one go
static constexpr size_t kQueueMax = 8 << 20;  // bytes
static constexpr int kPriority = -19;
static constexpr uid_t kLogdUser = 1036;

static std::mutex m_lock;
static std::condition_variable m_filled;
static std::condition_variable m_taken;
static std::string m_queue;  // raw records, one behind the other

int intake_open() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return -1;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof kReceiveBytes) == -1) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
    }
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kLogWriteSocket);
    unlink(kLogWriteSocket);  // left by a daemon before this one
    const mode_t old_umask = umask(0555);
    const bool is_ready = setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
                          bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
    umask(old_umask);
    if (!is_ready) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    // Owner as on a device; where the daemon may not give files away the mode alone is enough.
    (void)!chown(kLogWriteSocket, kLogdUser, kLogdUser);
    return fd;
}

// The sender as the kernel knows it, or null.
static const struct ucred *credentials_of(struct msghdr *message) {
    for (struct cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS) {
            return reinterpret_cast<const struct ucred *>(CMSG_DATA(part));
        }
    }
    return nullptr;
}

// Takes one datagram into `burst`; a longer one than a record can be is cut. False when none was there (or the wait was
// disturbed).
static bool take_record(int socket, int flags, std::string *burst) {
    raw_record record;
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred))];
    struct iovec part = {record.bytes, sizeof record.bytes};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
    if (length < 0) {
        return false;
    }
    const struct ucred *sender = credentials_of(&message);
    record.head.length = static_cast<uint32_t>(length);
    record.head.has_sender = sender != nullptr;
    record.head.sender = sender != nullptr ? *sender : ucred();
    burst->append(reinterpret_cast<const char *>(&record), sizeof record.head + record.head.length);
    return true;
}

// Leaves a burst to the keeper. Waits when that one is far behind: then the socket fills, and senders count what they
// drop.
static void hand_over(std::string *burst) {
    {
        std::unique_lock<std::mutex> guard(m_lock);
        m_taken.wait(guard, [burst] { return m_queue.size() + burst->size() <= kQueueMax; });
        m_queue += *burst;
    }
    m_filled.notify_one();
    burst->clear();
}

static void take_loop(int socket) {
    // Senders drop what finds the queue full, after a few hundred records and thus within a few milliseconds: on a busy
    // machine only a thread that runs at once is in time. Where that is refused, losses are likelier, and counted.
    const struct sched_param lowest = {1};
    if (sched_setscheduler(0, SCHED_FIFO, &lowest) == -1) {
        setpriority(PRIO_PROCESS, 0, kPriority);
    }
    std::string burst;
    burst.reserve(kBurstMax * sizeof(raw_record));
    for (;;) {
        bool has_more = take_record(socket, 0, &burst);
        for (int i = 1; has_more && i < kBurstMax; i++) {
            has_more = take_record(socket, MSG_DONTWAIT, &burst);
        }
        if (!burst.empty()) {
            hand_over(&burst);
        }
    }
}

static void keep_loop(int news) {
    std::string batch;
    batch.reserve(kQueueMax);
    for (;;) {
        batch.clear();
        {
            std::unique_lock<std::mutex> guard(m_lock);
            m_filled.wait(guard, [] { return !m_queue.empty(); });
            batch.swap(m_queue);
        }
        m_taken.notify_one();
        std::vector<log_entry> entries = records_accept(batch);
        store_add(&entries);
        eventfd_write(news, 1);
        journal_write(entries);
    }
}

void intake_start(int socket, int news) {
    m_queue.reserve(kQueueMax);
    std::thread(keep_loop, news).detach();
    std::thread(take_loop, socket).detach();
}
