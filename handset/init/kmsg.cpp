// Kernel messages: a FIFO bound over /proc/kmsg. As with the kernel's stream there is no end of file, each record is read
// once, and a short read never joins the rest of one record with the next: the pipe holds one page, and the next record
// is written only when the pipe is empty. State: the FIFO (open for reading too, so that it stays open without readers),
// the queue, and the callbacks that wait until it is read.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <deque>

#include "handset/init/init.h"

static const size_t kMaxRecord = 4096;   // bytes
static const size_t kMaxQueue = 100000;  // records

static int m_fifo = -1;
static std::deque<std::string> m_queue;
static std::vector<std::function<void()>> m_waiting;

static bool is_unread() {
    int bytes = 0;
    return ioctl(m_fifo, FIONREAD, &bytes) != 0 || bytes > 0;
}

static void tell_drained() {
    std::vector<std::function<void()>> waiting;
    waiting.swap(m_waiting);
    for (const auto &done : waiting) {
        done();
    }
}

static void offer_next(uint32_t) {
    if (!is_unread() && !m_queue.empty()) {
        if (write(m_fifo, m_queue.front().data(), m_queue.front().size()) > 0) {
            m_queue.pop_front();
        }
    }
    bool idle = m_queue.empty() && !is_unread();
    if (idle) {
        tell_drained();
    }
    loop_change(m_fifo, idle ? 0u : static_cast<uint32_t>(EPOLLOUT));
}

bool kmsg_feed(const std::string &record) {
    if (record.empty() || record.size() > kMaxRecord || m_queue.size() >= kMaxQueue) {
        return false;
    }
    journal({"kmsg", record});
    m_queue.push_back(record);
    offer_next(0);
    return true;
}

void kmsg_when_drained(std::function<void()> done) {
    m_waiting.push_back(std::move(done));
    offer_next(0);
}

// Converts a record of /dev/kmsg, "6,339,5140900,-;text" and lines of attributes.
static std::string as_proc_kmsg(char *record) {
    unsigned priority;
    unsigned long long number;
    unsigned long long micros;
    char *text = strchr(record, ';');
    if (text == nullptr || sscanf(record, "%u,%llu,%llu", &priority, &number, &micros) != 3) {
        return "";
    }
    text[1 + strcspn(text + 1, "\n")] = '\0';
    return text_format("<%u>[%5llu.%06llu] %s\n", priority, micros / 1000000, micros % 1000000, text + 1);
}

// Reading /dev/kmsg takes nothing away: each of its readers has its own position.
static void copy_machine(uint32_t) {
    char record[8192];
    for (int i = 0; i < 64; i++) {
        ssize_t got = read(options().kmsg_fd, record, sizeof(record) - 1);
        if (got < 0 && errno == EPIPE) {
            continue;  // overwritten before it was read; the next read continues with the oldest record left
        }
        if (got <= 0) {
            return;
        }
        record[got] = '\0';
        kmsg_feed(as_proc_kmsg(record));
    }
}

bool kmsg_open() {
    m_fifo = open(KMSG_FIFO, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_fifo < 0 || fcntl(m_fifo, F_SETPIPE_SZ, 4096) < 0 || !loop_watch(m_fifo, 0, offer_next)) {
        return false;
    }
    return options().kmsg_fd < 0 || loop_watch(options().kmsg_fd, EPOLLIN, copy_machine);
}
