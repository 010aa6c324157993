// Init's event loop: epoll and timers. State: both, and the flag that ends the loop.
#include <errno.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "handset/init/init.h"

struct timer {
    int64_t due;
    std::function<void()> call;
};

static int m_epoll = -1;
static bool m_ended = false;
static int m_last_timer = 0;
// Shared pointers, so that a callback can forget its own descriptor while it runs.
static std::map<int, std::shared_ptr<std::function<void(uint32_t)>>> m_watched;
static std::map<int, timer> m_timers;

int64_t loop_now() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool loop_open() {
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    return m_epoll >= 0;
}

bool loop_watch(int fd, uint32_t events, std::function<void(uint32_t)> ready) {
    struct epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
        return false;
    }
    m_watched[fd] = std::make_shared<std::function<void(uint32_t)>>(std::move(ready));
    return true;
}

void loop_change(int fd, uint32_t events) {
    struct epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    epoll_ctl(m_epoll, EPOLL_CTL_MOD, fd, &event);
}

void loop_forget(int fd) {
    epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
    m_watched.erase(fd);
}

int loop_after(int ms, std::function<void()> due) {
    m_timers[++m_last_timer] = {loop_now() + ms, std::move(due)};
    return m_last_timer;
}

void loop_cancel(int number) {
    m_timers.erase(number);
}

void loop_end() {
    m_ended = true;
}

// Milliseconds to the next timer, -1 without any.
static int next_due() {
    int64_t soonest = -1;
    for (const auto &entry : m_timers) {
        if (soonest < 0 || entry.second.due < soonest) {
            soonest = entry.second.due;
        }
    }
    if (soonest < 0) {
        return -1;
    }
    int64_t left = soonest - loop_now();
    return left < 0 ? 0 : static_cast<int>(left);
}

static void run_due_timers() {
    int64_t now = loop_now();
    for (auto it = m_timers.begin(); it != m_timers.end();) {
        if (it->second.due > now) {
            ++it;
            continue;
        }
        std::function<void()> call = std::move(it->second.call);
        m_timers.erase(it);
        call();
        it = m_timers.begin();  // the call may have changed the list
    }
}

void loop_run() {
    struct epoll_event events[16];
    while (!m_ended) {
        int count = epoll_wait(m_epoll, events, 16, next_due());
        for (int i = 0; i < count && !m_ended; i++) {
            auto found = m_watched.find(events[i].data.fd);
            if (found != m_watched.end()) {
                auto call = found->second;
                (*call)(events[i].events);
            }
        }
        if (!m_ended) {
            run_due_timers();
        }
    }
}
