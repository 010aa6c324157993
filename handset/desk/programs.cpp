// Runs programs inside a handset, through its init, and reads its processes. No state: the caller owns a child.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "handset/desk/handle.h"

bool desk_start(desk *h, const desk_program &program, desk_child *child) {
    std::vector<std::string> words = {"spawn",
                                      std::to_string(program.uid),
                                      std::to_string(program.gid),
                                      std::to_string(program.umask),
                                      program.cwd,
                                      program.terminal ? "1" : "0",
                                      "000",
                                      std::to_string(program.environment.size())};
    std::vector<int> fds;
    for (size_t i = 0; i < 3; i++) {
        if (program.fds[i] >= 0) {
            words[6][i] = '1';
            fds.push_back(program.fds[i]);
        }
    }
    words.insert(words.end(), program.environment.begin(), program.environment.end());
    words.insert(words.end(), program.argv.begin(), program.argv.end());
    int fd = control_connect(h);
    if (fd < 0) {
        return false;
    }
    std::string answer = control_send(fd, words, fds) ? control_receive(fd, 30000) : "";
    child->pid = control_number(answer, "pid", -1);
    child->wait_fd = fd;
    if (child->pid > 0) {
        return true;
    }
    close(fd);
    child->wait_fd = -1;
    return desk_fail("init could not start " + program.argv[0]);
}

int desk_wait(desk *h, desk_child *child, int limit_ms) {
    (void)h;
    std::string answer = control_receive(child->wait_fd, limit_ms);
    if (answer.empty()) {
        return -1;
    }
    close(child->wait_fd);
    child->wait_fd = -1;
    return control_number(answer, "exit", -1);
}

// Three pipes to a program: the ends of this process and the program's.
struct streams {
    int ours[3] = {-1, -1, -1};
    int theirs[3] = {-1, -1, -1};
};

static void close_one(int *fd) {
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

static void close_streams(streams *s) {
    for (int i = 0; i < 3; i++) {
        close_one(&s->ours[i]);
        close_one(&s->theirs[i]);
    }
}

static bool open_streams(streams *s) {
    for (int i = 0; i < 3; i++) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            close_streams(s);
            return desk_fail_errno("pipe");
        }
        s->ours[i] = ends[i == 0 ? 1 : 0];
        s->theirs[i] = ends[i == 0 ? 0 : 1];
        fcntl(s->ours[i], F_SETFL, O_NONBLOCK);
    }
    return true;
}

// A program may end without reading its input. Blocks the SIGPIPE of that without changing the caller's disposition.
static ssize_t write_without_signal(int fd, const char *data, size_t size) {
    sigset_t pipe_signal;
    sigset_t before;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
    ssize_t put = write(fd, data, size);
    int error = errno;
    if (put < 0 && error == EPIPE) {
        struct timespec at_once = {0, 0};
        sigtimedwait(&pipe_signal, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return put;
}

// Writes or reads what is possible without blocking. False at the end of the stream.
static bool pump_in(int fd, const std::string &input, size_t *sent) {
    if (*sent == input.size()) {
        return false;
    }
    ssize_t put = write_without_signal(fd, input.data() + *sent, input.size() - *sent);
    if (put > 0) {
        *sent += static_cast<size_t>(put);
    }
    return (put > 0 && *sent < input.size()) || (put < 0 && (errno == EAGAIN || errno == EINTR));
}

static bool pump_out(int fd, std::string *text) {
    return !read_all(fd, text) && (errno == EAGAIN || errno == EINTR);
}

// Until the program has ended, or the limit has passed. A surviving grandchild may keep the pipes open: its output after
// the program's end does not count.
static void exchange(streams *s, desk_child *child, const std::string &input, int limit_ms, desk_result *result) {
    int64_t end = desk_now_ms() + limit_ms;
    size_t sent = 0;
    if (input.empty()) {
        close_one(&s->ours[0]);
    }
    for (bool ended = false; !ended;) {
        struct pollfd fds[4] = {
            {s->ours[0], POLLOUT, 0}, {s->ours[1], POLLIN, 0}, {s->ours[2], POLLIN, 0}, {child->wait_fd, POLLIN, 0}};
        int slice = desk_slice_ms(end);
        int ready = poll(fds, 4, slice);
        if ((ready == 0 && slice == 0) || (ready < 0 && errno != EINTR)) {
            return;
        }
        if (ready <= 0) {
            continue;
        }
        ended = fds[3].revents != 0;
        if (fds[0].revents != 0 && !pump_in(s->ours[0], input, &sent)) {
            close_one(&s->ours[0]);
        }
        std::string *texts[3] = {nullptr, &result->output, &result->errors};
        for (int i = 1; i < 3; i++) {
            if (fds[i].revents != 0 && !pump_out(s->ours[i], texts[i])) {
                close_one(&s->ours[i]);
            }
        }
    }
}

desk_result desk_run(desk *h, const desk_program &program, const std::string &input, int limit_ms) {
    desk_result result;
    streams s;
    if (!open_streams(&s)) {
        return result;
    }
    desk_program piped = program;
    memcpy(piped.fds, s.theirs, sizeof(piped.fds));
    desk_child child;
    bool started = desk_start(h, piped, &child);
    for (int &fd : s.theirs) {
        close_one(&fd);
    }
    if (started) {
        exchange(&s, &child, input, limit_ms, &result);
        result.status = desk_wait(h, &child, 0);
        read_all(s.ours[1], &result.output);
        read_all(s.ours[2], &result.errors);
        if (result.status < 0 && child.wait_fd >= 0) {
            desk_kill(h, child.pid, SIGKILL);
            desk_wait(h, &child, 5000);
            result.status = -1;
            desk_fail("it did not end within the limit");
        }
        close_one(&child.wait_fd);
    }
    close_streams(&s);
    return result;
}

desk_result desk_shell(desk *h, const std::string &command, int limit_ms) {
    desk_program program;
    program.argv = {"/system/bin/sh", "-c", command};
    return desk_run(h, program, "", limit_ms);
}

bool desk_kill(desk *h, pid_t pid, int signal_number) {
    int error =
        control_number(control_ask(h, {"kill", std::to_string(pid), std::to_string(signal_number)}), "error", EIO);
    errno = error;
    return error == 0 || desk_fail_errno("kill");
}

pid_t desk_host_pid(const desk *h, pid_t pid) {
    if (desk_in_place()) {
        return pid;
    }
    int fd = control_connect(h);
    if (fd < 0) {
        return -1;
    }
    pid_t host = -1;
    int on = 1;
    // Set before the request, or the answer could arrive without the credentials.
    bool got = setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) == 0 &&
               control_send(fd, {"hostpid", std::to_string(pid)}) && control_receive(fd, 30000, &host) == "pid";
    close(fd);
    return got ? host : -1;
}

std::vector<std::string> desk_arguments(desk *h, pid_t pid) {
    std::vector<std::string> arguments;
    std::string text = desk_file_text(h, "/proc/" + std::to_string(pid) + "/cmdline");
    for (size_t start = 0; start < text.size();) {
        size_t end = std::min(text.find('\0', start), text.size());
        arguments.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return arguments;
}

std::vector<pid_t> desk_pids(desk *h, const std::string &name) {
    std::vector<pid_t> pids;
    for (const std::string &entry : desk_list(h, "/proc")) {
        pid_t pid = atoi(entry.c_str());
        if (pid <= 0) {
            continue;
        }
        std::vector<std::string> arguments = desk_arguments(h, pid);
        if (!arguments.empty() && arguments[0].find(name) != std::string::npos) {
            pids.push_back(pid);
        }
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}
