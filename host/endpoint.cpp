// The client's end of a published pseudo-terminal: finding it inside a root, taking it exclusively, judging its state.
// Owns no state: what must outlive a client (that an endpoint has been used) is kept in the terminal's own attributes.

#include "endpoint.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "message.h"

namespace {

// The agent gives the slaves it publishes to this pair. Anything else behind a link is a number that has been reused:
// the link was left by an agent that ended, and now leads to a stranger's terminal.
constexpr uid_t AGENT_PTY_UID = 1000;
constexpr gid_t AGENT_PTY_GID = 1001;

// A control character that raw mode does not look at marks a pseudo-terminal that some client has had. The agent
// replaces a published one as soon as its last client closes it, so a marked one is about to vanish and is never
// worth a request.
constexpr int USED_CHAR = VEOL2;
constexpr cc_t USED_MARK = 0xa5;

constexpr int ABSENT_MS = 1000;  // the agent replaces an endpoint within milliseconds; longer means that there is none
constexpr int RETRY_FIRST_MS = 1;
constexpr int RETRY_LAST_MS = 20;
constexpr int SHOW_WAIT_MS = 1000;

enum endpoint_state { IS_OPEN, IS_ABSENT, IS_FOREIGN, IS_BUSY, IS_USED, IS_REFUSED };

struct endpoint_try {
    int fd;
    endpoint_state state;
    int error;
    struct stat st;
};

int open_in_root(const std::string &root, const std::string &path, uint64_t flags) {
    if (root == "/") {
        return open(path.c_str(), static_cast<int>(flags));
    }
    int dir = open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        return -1;
    }
    struct open_how how = {};
    how.flags = flags;
    how.resolve = RESOLVE_IN_ROOT;
    int fd = static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof(how)));
    int error = errno;
    close(dir);
    errno = error;
    return fd;
}

// A published name is a link. A device given by its own path belongs to whoever gave it: nobody replaces it.
bool is_published(const host_options &options, const std::string &path) {
    int fd = open_in_root(options.root, path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return true;
    }
    struct stat st = {};
    bool is_link = fstat(fd, &st) != 0 || S_ISLNK(st.st_mode);
    close(fd);
    return is_link;
}

endpoint_state state_of_error(int error) {
    // EIO: made but not yet unlocked, or hung up since; ENXIO: the number is gone.
    return error == ENOENT || error == EIO || error == ENXIO ? IS_ABSENT : IS_REFUSED;
}

// Takes the endpoint behind an open descriptor: owner, lock, mark. Leaves it raw and marked on success.
endpoint_state take(endpoint_try &attempt, bool published) {
    if (fstat(attempt.fd, &attempt.st) != 0) {
        return IS_REFUSED;
    }
    if (published && (attempt.st.st_uid != AGENT_PTY_UID || attempt.st.st_gid != AGENT_PTY_GID)) {
        return IS_FOREIGN;
    }
    if (flock(attempt.fd, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? IS_BUSY : IS_REFUSED;
    }
    struct termios attr = {};
    if (tcgetattr(attempt.fd, &attr) != 0) {
        return state_of_error(errno);
    }
    if (published && attr.c_cc[USED_CHAR] == USED_MARK) {
        return IS_USED;
    }
    cfmakeraw(&attr);
    attr.c_cc[USED_CHAR] = USED_MARK;
    if (tcsetattr(attempt.fd, TCSANOW, &attr) != 0) {
        return state_of_error(errno);
    }
    tcflush(attempt.fd, TCIFLUSH);
    return IS_OPEN;
}

endpoint_try try_open(const host_options &options, const std::string &path, bool published) {
    endpoint_try attempt = {};
    attempt.fd = open_inside(options.root, path);
    attempt.state = attempt.fd < 0 ? state_of_error(errno) : take(attempt, published);
    attempt.error = errno;
    if (attempt.state != IS_OPEN && attempt.fd >= 0) {
        close(attempt.fd);
        attempt.fd = -1;
    }
    return attempt;
}

void explain_absent(const host_options &options, const std::string &path, const char *role) {
    if (access(options.root.c_str(), F_OK) != 0) {
        say("There is no root directory %s: the handset is not running. Check --root.", options.root.c_str());
        return;
    }
    int fd = open_in_root(options.root, path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        say("There is no %s at %s: the agent is not running, or publishes it elsewhere. Start the agent, or name the "
            "right path (see --help).",
            role, path.c_str());
        return;
    }
    close(fd);
    say("The %s %s leads nowhere: the agent that published it has ended. Start the agent and try again.", role,
        path.c_str());
}

void explain(const host_options &options, const std::string &path, const char *role, const endpoint_try &last) {
    switch (last.state) {
        case IS_ABSENT: explain_absent(options, path, role); return;
        case IS_FOREIGN:
            say("The %s %s leads to a terminal that is not the agent's (owner %u:%u): the link is left over from an "
                "agent "
                "that has ended. Start the agent and try again.",
                role, path.c_str(), static_cast<unsigned>(last.st.st_uid), static_cast<unsigned>(last.st.st_gid));
            return;
        case IS_BUSY:
            say("The %s %s is busy: another client is using it. Try again when it has finished, or wait longer with "
                "--timeout.",
                role, path.c_str());
            return;
        case IS_USED:
            say("The %s %s is busy: the agent is still at work for a client that has gone, or another program keeps "
                "the "
                "terminal open. Try again later, or wait longer with --timeout.",
                role, path.c_str());
            return;
        case IS_REFUSED:
        case IS_OPEN: break;
    }
    if (last.error == EACCES || last.error == EPERM) {
        say("No permission to open the %s %s: run sa-host as root or as a member of group %u.", role, path.c_str(),
            static_cast<unsigned>(AGENT_PTY_GID));
        return;
    }
    if (last.error == ENOTTY) {
        say("%s is no terminal, so it cannot be the %s. Name the right path (see --help).", path.c_str(), role);
        return;
    }
    say("Cannot open the %s %s: %s. Check the path and --root.", role, path.c_str(), strerror(last.error));
}

void pause_ms(int ms) {
    poll(nullptr, 0, ms);
}

}  // namespace

int open_inside(const std::string &root, const std::string &path) {
    return open_in_root(root, path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
}

int set_raw(int fd) {
    struct termios attr = {};
    if (tcgetattr(fd, &attr) != 0) {
        return -1;
    }
    cfmakeraw(&attr);
    attr.c_lflag |= IEXTEN;  // does nothing while input is not canonical; see is_foreground_cooked
    return tcsetattr(fd, TCSANOW, &attr);
}

int endpoint_open(const host_options &options, const std::string &path, const char *role, int64_t deadline_ms) {
    int64_t start = now_ms();
    int64_t absent_since = start;
    for (int wait = RETRY_FIRST_MS;; wait = std::min(wait * 2, RETRY_LAST_MS)) {
        endpoint_try attempt = try_open(options, path, is_published(options, path));
        if (attempt.state == IS_OPEN) {
            progress_clear();
            return attempt.fd;
        }
        int64_t now = now_ms();
        bool is_waiting = attempt.state == IS_BUSY || attempt.state == IS_USED;
        if (is_waiting) {
            absent_since = now;
        }
        int64_t limit = is_waiting ? deadline_ms : std::min(deadline_ms, absent_since + ABSENT_MS);
        if (attempt.state == IS_REFUSED || now >= limit) {
            explain(options, path, role, attempt);
            return -1;
        }
        if (is_waiting && now - start >= SHOW_WAIT_MS) {
            progress_show(text_of("waiting for the %s, busy with another client: %s", role,
                                  in_time(static_cast<uint64_t>((now - start) / 1000)).c_str()));
        }
        pause_ms(wait);
    }
}

int write_all(int fd, const char *data, size_t len, int64_t deadline_ms) {
    while (len > 0) {
        ssize_t done = write(fd, data, len);
        if (done > 0) {
            data += done;
            len -= static_cast<size_t>(done);
            continue;
        }
        if (done < 0 && errno != EAGAIN && errno != EINTR) {
            return -1;
        }
        struct pollfd room = {fd, POLLOUT, 0};
        int64_t left = deadline_ms - now_ms();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        poll(&room, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
    }
    return 0;
}

long read_some(int fd, char *data, size_t size, int64_t deadline_ms) {
    for (;;) {
        ssize_t got = read(fd, data, size);
        if (got >= 0) {
            return got;
        }
        if (errno == EIO) {
            return 0;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return -1;
        }
        int64_t left = deadline_ms - now_ms();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        struct pollfd ready = {fd, POLLIN, 0};
        poll(&ready, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
    }
}
