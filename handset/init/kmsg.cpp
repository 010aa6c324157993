// Kernel messages: the FIFO that stands in /proc/kmsg's place. Like the kernel's stream it never ends, a record is read
// once, and the rest of a record that a short read has split is never joined with the next record: the pipe is one page
// long, so it takes one record, and reports room again only when that record has been read to its end. State: both ends
// of the FIFO (the reading end keeps it open without readers), the queue, who waits for it to drain, the machine's log
// when that is copied.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <deque>

#include "init.h"

enum { LONGEST_RECORD = 4096, LONGEST_QUEUE = 100000 };

static int m_fifo = -1;
static std::deque<std::string> m_queue;
static std::vector<std::function<void()>> m_waiting;

static bool unread() {
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
    if (!unread() && !m_queue.empty()) {
        if (write(m_fifo, m_queue.front().data(), m_queue.front().size()) > 0) {
            m_queue.pop_front();
        }
    }
    bool idle = m_queue.empty() && !unread();
    if (idle) {
        tell_drained();
    }
    loop_change(m_fifo, idle ? 0u : static_cast<uint32_t>(EPOLLOUT));
}

bool kmsg_feed(const std::string &record) {
    if (record.empty() || record.size() > LONGEST_RECORD || m_queue.size() >= LONGEST_QUEUE) {
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

// "6,339,5140900,-;text" and further lines of attributes, as /dev/kmsg tells a record.
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

// The machine's log is only looked at: each reader of /dev/kmsg has a position of its own.
static void copy_machine(uint32_t) {
    char record[8192];
    for (int i = 0; i < 64; i++) {
        ssize_t got = read(options().kmsg_fd, record, sizeof(record) - 1);
        if (got < 0 && errno == EPIPE) {
            continue;  // overwritten before we came to it; the next read goes on behind
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
