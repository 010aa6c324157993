// What all of the desk library uses: the reason of a failure, the clock, waiting. State, of each thread: the reason of its
// last failed call, and its clock.
#include <errno.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "handset/desk/handle.h"

static thread_local std::string m_error;

const std::string &desk_error() {
    return m_error;
}

bool desk_fail(const std::string &reason) {
    m_error = reason;
    return false;
}

bool desk_fail_errno(const std::string &what) {
    return desk_fail(what + ": " + strerror(errno));
}

int64_t desk_now_ms() {
    const int64_t most = 250;  // longer than the code between two calls takes on a busy machine
    thread_local int64_t counted = 0;
    thread_local int64_t last = 0;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t machine = static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    counted += std::min(machine - last, most);
    last = machine;
    return counted;
}

int desk_slice_ms(int64_t end) {
    const int64_t left = end - desk_now_ms();
    return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left, 100)));
}

bool desk_until(const std::function<bool()> &condition, int limit_ms) {
    const int64_t end = desk_now_ms() + limit_ms;
    for (useconds_t pause = 1000;; pause = std::min<useconds_t>(pause * 2, 20000)) {
        if (condition()) {
            return true;
        }
        if (desk_now_ms() >= end) {
            return condition();  // a slow machine may have stopped this process since the call above
        }
        usleep(pause);
    }
}
