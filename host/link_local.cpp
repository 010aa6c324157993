// The link to a handset whose files this process can open: the handset's own shell, or a root directory such as
// /proc/PID/root. Owns no state: what must outlive a client (that an endpoint has been used) is kept in the terminal's
// own attributes.

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "link_kind.h"
#include "message.h"

namespace {

// A control character that raw mode does not look at marks a pseudo-terminal that some client has had. The agent
// replaces a published one as soon as its last client closes it, so a marked one is about to vanish and is never
// worth a request.
constexpr int USED_CHAR = VEOL2;
constexpr cc_t USED_MARK = 0xa5;

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

// Finds a path of the handset (device or link, absolute) without opening the device, which a stranger's terminal would
// notice. Links are followed inside `root`, absolute ones too. Result: O_PATH descriptor, or -1 with errno.
int find_inside(const std::string &root, const std::string &path, struct stat *st) {
    int fd = open_in_root(root, path, O_PATH | O_CLOEXEC);
    if (fd >= 0 && fstat(fd, st) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Opens what find_inside has found, read-write and non-blocking, never as controlling terminal. Closes `found`.
// Result: descriptor, or -1 with errno.
int open_found(int found) {
    std::string path = text_of("/proc/self/fd/%d", found);
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    int error = errno;
    close(found);
    errno = error;
    return fd;
}

bool is_agents(const struct stat &st) {
    return S_ISCHR(st.st_mode) && st.st_uid == AGENT_PTY_UID && st.st_gid == AGENT_PTY_GID;
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

link_state state_of_error(int error) {
    // EIO: made but not yet unlocked, or hung up since; ENXIO: the number is gone.
    return error == ENOENT || error == EIO || error == ENXIO ? LINK_ABSENT : LINK_REFUSED;
}

// Takes the endpoint behind an open descriptor: lock, mark. Leaves it raw and marked on success.
link_state take_endpoint(int fd, bool published) {
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? LINK_BUSY : LINK_REFUSED;
    }
    struct termios attr = {};
    if (tcgetattr(fd, &attr) != 0) {
        return state_of_error(errno);
    }
    if (published && attr.c_cc[USED_CHAR] == USED_MARK) {
        return LINK_USED;
    }
    cfmakeraw(&attr);
    attr.c_cc[USED_CHAR] = USED_MARK;
    if (tcsetattr(fd, TCSANOW, &attr) != 0) {
        return state_of_error(errno);
    }
    tcflush(fd, TCIFLUSH);
    return LINK_TAKEN;
}

// When the link itself was made. Result: whether it could be told.
bool link_time(const std::string &root, const std::string &path, struct timespec *time) {
    int fd = open_in_root(root, path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat st = {};
    bool is_told = fstat(fd, &st) == 0;
    close(fd);
    *time = st.st_ctim;
    return is_told;
}

// A link that a killed agent left may lead to a number that the new agent has used for its other name, with the right
// owner, until this name is published anew. Of two names that lead to one terminal the newer link is the right one.
bool is_left_over(const host_options &options, const std::string &path, const struct stat &target) {
    const std::string &other = path == options.channel ? options.listener : options.channel;
    struct stat other_target = {};
    int there = find_inside(options.root, other, &other_target);
    if (there < 0) {
        return false;
    }
    close(there);
    struct timespec own = {};
    struct timespec newer = {};
    return other_target.st_dev == target.st_dev && other_target.st_rdev == target.st_rdev &&
           link_time(options.root, path, &own) && link_time(options.root, other, &newer) &&
           (own.tv_sec < newer.tv_sec || (own.tv_sec == newer.tv_sec && own.tv_nsec < newer.tv_nsec));
}

link_attempt take(const host_options &options, const std::string &path, link_turn *turn) {
    link_attempt attempt;
    bool published = is_published(options, path);
    struct stat st = {};
    int found = find_inside(options.root, path, &st);
    if (found >= 0 && published && !is_agents(st)) {
        close(found);
        attempt.state = LINK_FOREIGN;
        attempt.uid = st.st_uid;
        attempt.gid = st.st_gid;
        return attempt;
    }
    if (found >= 0 && published && is_left_over(options, path, st)) {
        close(found);
        attempt.state = LINK_ABSENT;
        return attempt;
    }
    int fd = found < 0 ? -1 : open_found(found);
    attempt.state = fd < 0 ? state_of_error(errno) : take_endpoint(fd, published);
    attempt.error = errno;
    if (attempt.state == LINK_TAKEN) {
        turn->fd = fd;
    } else if (fd >= 0) {
        close(fd);
    }
    return attempt;
}

std::string explain_absence(const host_options &options, const std::string &path, const char *role) {
    if (access(options.root.c_str(), F_OK) != 0) {
        return text_of("There is no root directory %s: the handset is not running. Check --root.",
                       options.root.c_str());
    }
    int fd = open_in_root(options.root, path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return text_of(
            "There is no %s at %s: the agent is not running, or publishes it elsewhere. Start the agent, or name the "
            "right path (see --help).%s",
            role, path.c_str(), options.root == "/" ? " A handset on a cable is reached with --adb." : "");
    }
    close(fd);
    return text_of("The %s %s leads nowhere: the agent that published it has ended. Start the agent and try again.",
                   role, path.c_str());
}

// Numbers of terminals are reused; the time of the node's last change of owner or mode is not.
std::string life_of(const struct stat &st) {
    return text_of("%ju %jd.%09ld", static_cast<uintmax_t>(st.st_ino), static_cast<intmax_t>(st.st_ctim.tv_sec),
                   st.st_ctim.tv_nsec);
}

std::string identity(const host_options &options, const std::string &path) {
    int fd = open_in_root(options.root, path, O_PATH | O_CLOEXEC);
    struct stat st = {};
    if (fd < 0 || fstat(fd, &st) != 0) {
        return "";  // fstat of an open descriptor does not fail: there is nothing to close
    }
    close(fd);
    return life_of(st);
}

bool set_raw(int fd) {
    struct termios attr = {};
    if (tcgetattr(fd, &attr) != 0) {
        return false;
    }
    cfmakeraw(&attr);
    return tcsetattr(fd, TCSANOW, &attr) == 0;
}

// The handset's files are this machine's: what ends is the agent.
std::string no_loss(const host_options &) {
    return "";
}

// Whether the announced terminal stands beside the listener and is the agent's. A listener that is relayed from another
// machine announces paths of that machine, where the same path of this one is somebody else's terminal.
bool is_announced_here(const link_turn &listener, const struct stat &st) {
    struct stat beside = {};
    return is_agents(st) && fstat(listener.fd, &beside) == 0 && beside.st_dev == st.st_dev;
}

bool open_terminal(const host_options &options, const link_turn &listener, const std::string &path,
                   link_terminal *terminal) {
    struct stat st = {};
    int found = find_inside(options.root, path, &st);
    if (found >= 0 && !is_announced_here(listener, st)) {
        close(found);
        say("The agent announced %s, which is not a terminal of the agent here (owner %u:%u): %s is relayed from "
            "another machine, or --root is wrong. A relay cannot carry a remote shell.",
            path.c_str(), static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_gid), options.listener.c_str());
        return false;
    }
    int fd = found < 0 ? -1 : open_found(found);
    if (fd < 0) {
        say("The connection %s that the agent announced cannot be opened: %s. Check --root and your permissions.",
            path.c_str(), strerror(errno));
        return false;
    }
    if (!set_raw(fd)) {
        say("The connection %s cannot be made raw: %s. Try again.", path.c_str(), strerror(errno));
        close(fd);
        return false;
    }
    terminal->fd = fd;
    terminal->path = path;
    terminal->life = life_of(st);
    return true;
}

bool reopen_terminal(const host_options &options, link_terminal *terminal) {
    struct stat st = {};
    int found = find_inside(options.root, terminal->path, &st);
    if (found >= 0 && life_of(st) != terminal->life) {
        close(found);
        return false;
    }
    terminal->fd = found < 0 ? -1 : open_found(found);
    return terminal->fd >= 0;
}

void set_size(const host_options &, const link_terminal &terminal, const struct winsize &size) {
    ioctl(terminal.fd, TIOCSWINSZ, &size);
}

bool get_attributes(const host_options &, const link_terminal &terminal, struct termios *attributes) {
    return tcgetattr(terminal.fd, attributes) == 0;
}

// A program that sets all attributes anew (`top`, `stty sane`) would clear EXTPROC, and the kernel would give the child
// its own output to read until that is noticed. Root can forbid it.
void lock_passing(int fd) {
    struct termios locked = {};
    locked.c_lflag = EXTPROC;
    ioctl(fd, TIOCSLCKTRMIOS, &locked);
}

bool set_passing(const host_options &, const link_terminal &terminal, bool is_new) {
    struct termios attr = {};
    if (tcgetattr(terminal.fd, &attr) != 0) {
        return false;
    }
    attr.c_lflag |= EXTPROC;
    attr.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    if (is_new) {
        attr.c_iflag |= ICRNL;
        attr.c_lflag |= ICANON | ECHO | ECHOE | ECHOK | ISIG | IEXTEN;
    }
    if (tcsetattr(terminal.fd, TCSANOW, &attr) != 0) {
        return false;
    }
    lock_passing(terminal.fd);
    return true;
}

}  // namespace

const link_kind m_link_local = {take,     explain_absence, identity,    no_loss,        open_terminal,
                                set_size, get_attributes,  set_passing, reopen_terminal};
