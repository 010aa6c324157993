// The shared parts of sa-host's tests. All state is in what the tests hold.
#include "tests/host/support.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace {

std::vector<char *> pointers(const words &argv) {
    std::vector<char *> list;
    for (const std::string &word : argv) {
        list.push_back(const_cast<char *>(word.c_str()));
    }
    list.push_back(nullptr);
    return list;
}

words host_argv(const words &arguments) {
    words argv = {SA_HOST};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

// What every program under test starts with, whatever the test runner has.
void plain_signals() {
    signal(SIGPIPE, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

int status_of(int raw) {
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

// Reads what is there. Result: false at the end.
bool read_into(int fd, std::string *text) {
    char buf[65536];
    ssize_t got = read(fd, buf, sizeof(buf));
    if (got > 0) {
        text->append(buf, static_cast<size_t>(got));
    }
    return got > 0 || (got < 0 && errno == EAGAIN);
}

void close_one(int *fd) {
    if (*fd >= 0) {
        close(*fd);
    }
    *fd = -1;
}

// One round of host_finish: whatever of the three streams is ready.
void pump(host_job *job, const std::string &input, size_t *fed, int wait_ms) {
    struct pollfd set[3] = {{job->in, POLLOUT, 0}, {job->out, POLLIN, 0}, {job->err, POLLIN, 0}};
    poll(set, 3, wait_ms);
    if (set[0].revents != 0) {
        ssize_t put = write(job->in, input.data() + *fed, input.size() - *fed);
        *fed += put > 0 ? static_cast<size_t>(put) : 0;
        if (*fed == input.size() || (put < 0 && errno != EAGAIN)) {
            close_one(&job->in);
        }
    }
    if (set[1].revents != 0 && !read_into(job->out, &job->out_text)) {
        close_one(&job->out);
    }
    if (set[2].revents != 0 && !read_into(job->err, &job->err_text)) {
        close_one(&job->err);
    }
}

}  // namespace

void program_start(const words &argv, bool has_input, host_job *job) {
    int in[2], out[2], err[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC) | pipe2(err, O_CLOEXEC), 0);
    std::vector<char *> list = pointers(argv);
    job->pid = fork();
    if (job->pid == 0) {
        plain_signals();
        dup2(has_input ? in[0] : open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execvp(list[0], list.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    job->in = in[1];
    if (!has_input) {
        close_one(&job->in);
    }
    job->out = out[0];
    job->err = err[0];
    for (int fd : {job->in, job->out, job->err}) {
        if (fd >= 0) {
            fcntl(fd, F_SETFL, O_NONBLOCK);
        }
    }
}

void host_start(const words &arguments, bool has_input, host_job *job) {
    program_start(host_argv(arguments), has_input, job);
}

host_result host_finish(host_job *job, const std::string &input, int limit_ms) {
    signal(SIGPIPE, SIG_IGN);
    const int64_t deadline = desk_now_ms() + limit_ms;
    size_t fed = 0;
    while ((job->out >= 0 || job->err >= 0) && desk_now_ms() < deadline) {
        pump(job, input, &fed, 100);
    }
    host_result result;
    result.status = host_wait(job->pid, static_cast<int>(std::max<int64_t>(deadline - desk_now_ms(), 100)));
    close_one(&job->in);
    close_one(&job->out);
    close_one(&job->err);
    result.out = job->out_text;
    result.err = job->err_text;
    return result;
}

host_result host_run(const words &arguments, int limit_ms) {
    host_job job;
    host_start(arguments, false, &job);
    return host_finish(&job, "", limit_ms);
}

host_result host_run_with(const words &arguments, const std::string &input, int limit_ms) {
    host_job job;
    host_start(arguments, true, &job);
    return host_finish(&job, input, limit_ms);
}

int host_wait(pid_t pid, int limit_ms) {
    int raw = 0;
    bool has_ended = desk_until([&] { return waitpid(pid, &raw, WNOHANG) == pid; }, limit_ms);
    if (!has_ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &raw, 0);
        return -1;
    }
    return status_of(raw);
}

void terminal_start(const words &argv, host_terminal *terminal, int rows, int columns) {
    struct winsize size = {};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    std::vector<char *> list = pointers(argv);
    terminal->pid = forkpty(&terminal->fd, nullptr, nullptr, &size);
    ASSERT_GE(terminal->pid, 0);
    if (terminal->pid == 0) {
        plain_signals();
        setenv("TERM", "vt100", 1);
        execv(list[0], list.data());
        _exit(127);
    }
    fcntl(terminal->fd, F_SETFD, FD_CLOEXEC);
    fcntl(terminal->fd, F_SETFL, O_NONBLOCK);
}

void terminal_type(host_terminal *terminal, const std::string &bytes) {
    ASSERT_EQ(write(terminal->fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

void terminal_resize(host_terminal *terminal, int rows, int columns) {
    struct winsize size = {};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    ASSERT_EQ(ioctl(terminal->fd, TIOCSWINSZ, &size), 0);
}

bool terminal_expect(host_terminal *terminal, const std::string &text, int limit_ms) {
    const int64_t deadline = desk_now_ms() + limit_ms;
    for (;;) {
        const size_t at = terminal->screen.find(text, terminal->seen);
        if (at != std::string::npos) {
            terminal->seen = at + text.size();
            return true;
        }
        struct pollfd ready = {terminal->fd, POLLIN, 0};
        if (desk_now_ms() >= deadline || poll(&ready, 1, 100) < 0 || !read_into(terminal->fd, &terminal->screen)) {
            ADD_FAILURE() << "\"" << text << "\" does not appear; since the last find:\n"
                          << terminal->screen.substr(terminal->seen);
            return false;
        }
    }
}

bool terminal_is_cooked(const host_terminal *terminal) {
    struct termios attr = {};
    const tcflag_t wanted = ICANON | ECHO | ISIG;
    return tcgetattr(terminal->fd, &attr) == 0 && (attr.c_lflag & wanted) == wanted && (attr.c_iflag & ICRNL) != 0;
}

bool terminal_wait_cooked(const host_terminal *terminal, int limit_ms) {
    return desk_until([&] { return terminal_is_cooked(terminal); }, limit_ms);
}

int terminal_finish(host_terminal *terminal, int limit_ms) {
    int raw = 0;
    const bool has_ended = desk_until(
        [&] {
            read_into(terminal->fd, &terminal->screen);
            return waitpid(terminal->pid, &raw, WNOHANG) == terminal->pid;
        },
        limit_ms);
    read_into(terminal->fd, &terminal->screen);
    if (!has_ended) {
        return -1;
    }
    terminal->pid = -1;
    return status_of(raw);
}

void terminal_end(host_terminal *terminal) {
    if (terminal->pid > 0) {
        kill(terminal->pid, SIGKILL);
        waitpid(terminal->pid, nullptr, 0);
    }
    terminal->pid = -1;
    close_one(&terminal->fd);
}

void HostTest::boot_host(const desk_options &options) {
    boot_only(options);
    if (!HasFatalFailure()) {
        ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "sa_listener_loop fd["), 0u) << "the agent did not come up";
        ASSERT_TRUE(desk_until([&] { return desk_exists(h, "/dev/ttyCMD0"); }, 10000));
    }
}

words HostTest::inside(const words &arguments) const {
    std::string root = desk_host_path(h, "/");
    words all = {"--root", root};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

host_result HostTest::host(const words &arguments) const {
    return host_run(inside(arguments));
}

host_result HostTest::host_with(const words &arguments, const std::string &input) const {
    return host_run_with(inside(arguments), input);
}

words HostTest::received() {
    const std::string lead = "receive <== ";
    words requests;
    settle();
    for (const std::string &line : platform_lines()) {
        if (line.compare(0, lead.size(), lead) == 0) {
            requests.push_back(line.substr(lead.size()));
        }
    }
    return requests;
}

bool HostTest::runs(const words &argv) {
    for (pid_t pid : desk_pids(h, argv[0])) {
        if (desk_arguments(h, pid) == argv) {
            return true;
        }
    }
    return false;
}

bool HostTest::wait_gone(const words &argv, int limit_ms) {
    return desk_until([&] { return !runs(argv); }, limit_ms);
}

bool HostTest::wait_runs(const words &argv, int limit_ms) {
    return desk_until([&] { return runs(argv); }, limit_ms);
}

temporary_dir::temporary_dir() {
    char name[] = "/tmp/host_test.XXXXXX";
    path = mkdtemp(name) != nullptr ? name : "";
}

temporary_dir::~temporary_dir() {
    if (!path.empty()) {
        EXPECT_EQ(system(("rm -rf " + path).c_str()), 0);
    }
}

void private_terminals() {
    if (unshare(CLONE_NEWNS) != 0) {
        return;
    }
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0);
}

void endpoint_publish(const std::string &link, false_endpoint *endpoint) {
    endpoint->link = link;
    endpoint->master = open("/dev/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(endpoint->master, 0);
    ASSERT_EQ(grantpt(endpoint->master) | unlockpt(endpoint->master), 0);
    const std::string slave = ptsname(endpoint->master);
    struct termios attr = {};
    tcgetattr(endpoint->master, &attr);
    cfmakeraw(&attr);
    tcsetattr(endpoint->master, TCSANOW, &attr);
    ASSERT_EQ(chmod(slave.c_str(), 0660) | chown(slave.c_str(), 1000, 1001), 0);
    unlink(link.c_str());
    ASSERT_EQ(symlink(slave.c_str(), link.c_str()), 0);
}

std::string endpoint_read(false_endpoint *endpoint, int limit_ms) {
    char buf[2048];
    ssize_t got = -1;
    const int64_t deadline = desk_now_ms() + limit_ms;
    while ((got = read(endpoint->master, buf, sizeof(buf))) < 0 && desk_now_ms() < deadline) {
        struct pollfd ready = {endpoint->master, POLLIN, 0};
        if (errno == EIO || poll(&ready, 1, 100) != 1) {
            usleep(5000);  // EIO: no client has it open now
        }
    }
    return std::string(buf, static_cast<size_t>(std::max<ssize_t>(got, 0)));
}

void endpoint_write(false_endpoint *endpoint, const std::string &bytes) {
    ASSERT_EQ(write(endpoint->master, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

bool endpoint_wait_hangup(false_endpoint *endpoint, int limit_ms) {
    return desk_until(
        [&] {
            struct pollfd state = {endpoint->master, 0, 0};
            return poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
        },
        limit_ms);
}

void endpoint_close(false_endpoint *endpoint, bool keep_link) {
    if (!keep_link) {
        unlink(endpoint->link.c_str());
    }
    close_one(&endpoint->master);
}
