// Reads records as they are sent and lets in what has the shape of one. State: none but the socket it is given.
#include "handset/logd/intake.h"

#include <errno.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/logd/journal.h"
#include "handset/logd/store.h"

static constexpr unsigned kKernelBuffer = 7;  // filled by the kernel, never by a program
static constexpr int kReceiveBytes = 8 << 20;
static constexpr int kBurstMax = 128;  // records between two wake-ups of the readers
static constexpr uid_t kLogdUser = 1036;

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

// Stores a record of `length` bytes unless it is a mere header, for no buffer or for the kernel's, or of unknown origin.
static void accept_record(const unsigned char *record, size_t length, const struct ucred *sender) {
    log_record_header from;
    if (length <= sizeof from || sender == nullptr) {
        return;
    }
    memcpy(&from, record, sizeof from);
    if (from.buffer >= kLogBufferCount || from.buffer == kKernelBuffer) {
        return;
    }
    log_entry entry;
    entry.payload.assign(reinterpret_cast<const char *>(record) + sizeof from, length - sizeof from);
    entry.header.length = static_cast<uint16_t>(entry.payload.size());
    entry.header.header_size = sizeof entry.header;
    entry.header.pid = sender->pid;
    entry.header.uid = sender->uid;
    entry.header.tid = from.tid;
    entry.header.sec = from.sec;
    entry.header.nsec = from.nsec;
    entry.header.buffer = from.buffer;
    store_add(&entry);
    journal_put(entry);
}

// Takes one datagram; a longer one than a record can be is cut. False when none was there (or the wait was disturbed).
static bool take_record(int socket, int flags) {
    unsigned char record[sizeof(log_record_header) + kLogPayloadMax];
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred))];
    struct iovec part = {record, sizeof record};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
    if (length < 0) {
        return false;
    }
    accept_record(record, static_cast<size_t>(length), credentials_of(&message));
    return true;
}

void intake_run(int socket, int news) {
    for (;;) {
        bool has_more = take_record(socket, 0);
        for (int i = 1; has_more && i < kBurstMax; i++) {
            has_more = take_record(socket, MSG_DONTWAIT);
        }
        eventfd_write(news, 1);
    }
}
