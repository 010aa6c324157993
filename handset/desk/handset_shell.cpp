// A shell of the handset on this process' terminal: copies bytes between standard streams and the master of a
// pseudo-terminal of the handset. State: the terminal's settings from before, while a shell runs.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "handset/desk/handset.h"

static struct termios m_before;
static bool m_raw = false;
static volatile sig_atomic_t m_resized = 0;

static void restore() {
    if (m_raw) {
        tcsetattr(0, TCSANOW, &m_before);
        m_raw = false;
    }
}

static void set_raw() {
    if (tcgetattr(0, &m_before) != 0) {
        return;
    }
    struct termios raw = m_before;
    cfmakeraw(&raw);
    m_raw = tcsetattr(0, TCSANOW, &raw) == 0;
    atexit(restore);
}

static void on_resize(int) {
    m_resized = 1;
}

static void pass_size(int master) {
    struct winsize size;
    if (ioctl(0, TIOCGWINSZ, &size) == 0) {
        ioctl(master, TIOCSWINSZ, &size);
    }
    m_resized = 0;
}

// Opens both ends of a pseudo-terminal of the handset.
static bool open_terminal(desk *h, int *master, int *slave) {
    *master = desk_open(h, "/dev/ptmx", O_RDWR | O_NOCTTY);
    int number = -1;
    int unlocked = 0;
    if (*master < 0 || ioctl(*master, TIOCSPTLCK, &unlocked) != 0 || ioctl(*master, TIOCGPTN, &number) != 0) {
        return false;
    }
    *slave = desk_open(h, "/dev/pts/" + std::to_string(number), O_RDWR | O_NOCTTY);
    return *slave >= 0;
}

static bool pass(int from, int to) {
    char buf[4096];
    ssize_t got = read(from, buf, sizeof(buf));
    if (got < 0) {
        return errno == EINTR;
    }
    for (ssize_t done = 0; done < got;) {
        ssize_t put = write(to, buf + done, static_cast<size_t>(got - done));
        if (put < 0 && errno != EINTR) {
            return false;
        }
        done += put > 0 ? put : 0;
    }
    return got > 0;
}

// Copies until the shell has ended. The end of standard input becomes Ctrl-D.
static void copy_streams(int master, int wait_fd) {
    bool input = true;
    for (;;) {
        struct pollfd fds[3] = {{master, POLLIN, 0}, {wait_fd, POLLIN, 0}, {input ? 0 : -1, POLLIN, 0}};
        if (poll(fds, 3, -1) < 0 && errno != EINTR) {
            return;
        }
        if (m_resized != 0) {
            pass_size(master);
        }
        if (fds[2].revents != 0 && !pass(0, master)) {
            input = false;
            char end_of_file = 4;
            if (write(master, &end_of_file, 1) != 1) {
                return;
            }
        }
        if ((fds[0].revents & POLLIN) != 0) {
            if (!pass(master, 1)) {
                return;
            }
        } else if (fds[1].revents != 0) {
            return;
        }
    }
}

int handset_shell(desk *h, const std::vector<std::string> &argv) {
    int master = -1;
    int slave = -1;
    desk_child child;
    if (!open_terminal(h, &master, &slave)) {
        return 125;
    }
    pass_size(master);
    desk_program program;
    program.argv = argv.empty() ? std::vector<std::string>{"/system/bin/sh", "-i"} : argv;
    program.environment = {std::string("TERM=") + (getenv("TERM") != nullptr ? getenv("TERM") : "dumb")};
    program.fds[0] = program.fds[1] = program.fds[2] = slave;
    program.terminal = true;
    if (!desk_start(h, program, &child)) {
        return 125;
    }
    close(slave);
    signal(SIGWINCH, on_resize);
    set_raw();
    copy_streams(master, child.wait_fd);
    restore();
    close(master);
    int status = desk_wait(h, &child, 5000);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
