// Reads and writes with a deadline. Owns no state.

#include "stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>

#include "message.h"

namespace {

// Waits for `events`. Result: false, with errno, when the deadline has passed.
bool wait_for(int fd, short events, int64_t deadline_ms) {
    int64_t left = deadline_ms - now_ms();
    if (left <= 0) {
        errno = ETIMEDOUT;
        return false;
    }
    struct pollfd ready = {fd, events, 0};
    poll(&ready, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
    return true;
}

// A socket whose other end has gone must not end this process.
ssize_t write_once(int fd, const char *data, size_t len) {
    ssize_t done = send(fd, data, len, MSG_NOSIGNAL);
    return done < 0 && errno == ENOTSOCK ? write(fd, data, len) : done;
}

}  // namespace

int write_all(int fd, const char *data, size_t len, int64_t deadline_ms) {
    while (len > 0) {
        ssize_t done = write_once(fd, data, len);
        if (done > 0) {
            data += done;
            len -= static_cast<size_t>(done);
            continue;
        }
        if (done < 0 && errno != EAGAIN && errno != EINTR) {
            return -1;
        }
        if (!wait_for(fd, POLLOUT, deadline_ms)) {
            return -1;
        }
    }
    return 0;
}

long read_some(int fd, char *data, size_t size, int64_t deadline_ms) {
    for (;;) {
        ssize_t got = read(fd, data, size);
        if (got >= 0) {
            return got;
        }
        if (errno == EIO || errno == ECONNRESET) {
            return 0;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return -1;
        }
        if (!wait_for(fd, POLLIN, deadline_ms)) {
            return -1;
        }
    }
}
