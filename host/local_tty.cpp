// Raw mode of the person's terminal and its way back. Owns the saved attributes, the keeper's pipe and the former
// signal actions. Main thread only; the handlers touch nothing but m_local_events.

#include "local_tty.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <cerrno>

local_events m_local_events = {0, 0, 0};

namespace {

constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP};
constexpr size_t SIGNAL_COUNT = sizeof(SIGNALS) / sizeof(SIGNALS[0]);

struct sigaction m_former_actions[SIGNAL_COUNT];
struct sigaction m_former_pipe;
sigset_t m_former_mask;
sigset_t m_wait_mask;
bool m_is_taken = false;

int m_raw_fd = -1;            // terminal in raw mode, -1 for none; not owned
struct termios m_saved_attr;  // its attributes before, valid while m_raw_fd is
int m_keeper_pipe = -1;       // write end: a byte dismisses the keeper, a mere close makes it restore the terminal

void note_signal(int number) {
    if (number == SIGWINCH) {
        m_local_events.is_resized = 1;
    } else if (number == SIGTSTP) {
        m_local_events.is_to_suspend = 1;
    } else {
        m_local_events.end_signal = number;
    }
}

// The keeper's life: in a group of its own, so that no signal from the keyboard or to our group meets it, it holds the
// terminal and one end of a pipe, nothing else, lest it keep a reader of our output waiting.
[[noreturn]] void keep(int tty, int pipe_end) {
    setpgid(0, 0);
    signal(SIGTTOU, SIG_IGN);  // it restores from the background
    for (size_t i = 0; i < SIGNAL_COUNT; ++i) {
        signal(SIGNALS[i], SIG_IGN);
    }
    for (int fd = 0; fd < 1024; ++fd) {
        if (fd != tty && fd != pipe_end) {
            close(fd);
        }
    }
    char byte = 0;
    ssize_t got;
    do {
        got = read(pipe_end, &byte, 1);
    } while (got < 0 && errno == EINTR);
    if (got != 1) {
        tcsetattr(tty, TCSANOW, &m_saved_attr);
    }
    _exit(0);
}

// Starts the keeper through a middle process, so that it is nobody's zombie here. Without one raw mode still works;
// only SIGKILL would leave the terminal raw.
void keeper_start(int tty) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    pid_t middle = fork();
    if (middle == 0) {
        close(ends[1]);
        if (fork() == 0) {
            keep(tty, ends[0]);
        }
        _exit(0);
    }
    close(ends[0]);
    if (middle < 0) {
        close(ends[1]);
        return;
    }
    while (waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_keeper_pipe = ends[1];
}

void raw_attributes(struct termios *attr) {
    attr->c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXOFF);
    attr->c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    attr->c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
    attr->c_cflag |= CS8;
    attr->c_cc[VMIN] = 1;
    attr->c_cc[VTIME] = 0;
}

}  // namespace

void local_signals_take() {
    if (m_is_taken) {
        return;
    }
    m_is_taken = true;
    sigset_t ours;
    sigemptyset(&ours);
    struct sigaction action = {};
    action.sa_handler = note_signal;
    sigfillset(&action.sa_mask);
    for (size_t i = 0; i < SIGNAL_COUNT; ++i) {
        sigaddset(&ours, SIGNALS[i]);
    }
    sigprocmask(SIG_BLOCK, &ours, &m_former_mask);
    m_local_events = {0, 0, 0};
    for (size_t i = 0; i < SIGNAL_COUNT; ++i) {
        sigaction(SIGNALS[i], nullptr, &m_former_actions[i]);
        bool is_kept = m_former_actions[i].sa_handler == SIG_IGN;  // nohup, or a background job of a plain shell
        if (!is_kept) {
            sigaction(SIGNALS[i], &action, nullptr);
        }
    }
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, &m_former_pipe);
    m_wait_mask = m_former_mask;
    for (size_t i = 0; i < SIGNAL_COUNT; ++i) {
        sigdelset(&m_wait_mask, SIGNALS[i]);
    }
}

const sigset_t *local_wait_mask() {
    return &m_wait_mask;
}

void local_signals_release() {
    if (!m_is_taken) {
        return;
    }
    m_is_taken = false;
    for (size_t i = 0; i < SIGNAL_COUNT; ++i) {
        sigaction(SIGNALS[i], &m_former_actions[i], nullptr);
    }
    sigaction(SIGPIPE, &m_former_pipe, nullptr);
    sigprocmask(SIG_SETMASK, &m_former_mask, nullptr);
}

int local_raw_enter(int fd) {
    if (tcgetattr(fd, &m_saved_attr) != 0) {
        return -1;
    }
    keeper_start(fd);
    struct termios raw = m_saved_attr;
    raw_attributes(&raw);
    m_raw_fd = fd;
    if (tcsetattr(fd, TCSADRAIN, &raw) != 0) {
        int error = errno;
        local_raw_leave();
        errno = error;
        return -1;
    }
    return 0;
}

void local_raw_leave() {
    if (m_raw_fd >= 0) {
        tcsetattr(m_raw_fd, TCSADRAIN, &m_saved_attr);
        m_raw_fd = -1;
    }
    if (m_keeper_pipe >= 0) {
        ssize_t ignored = write(m_keeper_pipe, "", 1);
        (void)ignored;
        close(m_keeper_pipe);
        m_keeper_pipe = -1;
    }
}

void local_suspend(int fd) {
    bool was_raw = m_raw_fd >= 0;
    local_raw_leave();
    kill(0, SIGSTOP);
    if (was_raw) {
        local_raw_enter(fd);
    }
    m_local_events.is_resized = 1;
}

void local_die_by(int signal_number) {
    local_raw_leave();
    signal(signal_number, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal_number);
    raise(signal_number);
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
    _exit(128 + signal_number);
}
