// The remote shell from its client's side. All state is in the fixture.
#include "tests/support/remote_shell.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

static const char kListener[] = "/dev/ttysa1";

void RemoteShellTest::TearDown() {
    if (listener >= 0) {
        close(listener);
    }
    AgentTest::TearDown();
}

void RemoteShellTest::come_up(const desk_options &options) {
    boot(options);
    if (HasFatalFailure()) {
        return;
    }
    // A child's last output is there for 200 ms: the client must not be starved that long on a busy machine.
    setpriority(PRIO_PROCESS, 0, -10);
    agent = desk_agent_pid(h);
    ASSERT_GT(agent, 0);
    ASSERT_TRUE(desk_until([&] { return threads(agent) == 2; })) << "main thread and command reader";
    descriptors_before = kept_descriptors();
    threads_before = threads(agent);
    open_listener();
}

void RemoteShellTest::open_listener() {
    if (listener >= 0) {
        close(listener);
    }
    listener = desk_open_tty(h, kListener);
    ASSERT_GE(listener, 0) << desk_error();
}

// How many lines begin with `start`.
static int count_starts(const std::vector<std::string> &lines, const std::string &start) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string &line) {
        return line.compare(0, start.size(), start) == 0;
    }));
}

void RemoteShellTest::leave_listener() {
    const std::string reopened = "sa_listener_loop reopen fd[";
    const int before = count_starts(platform_lines(), reopened);
    close(listener);
    listener = -1;
    ASSERT_TRUE(desk_until([&] { return count_starts(platform_lines(), reopened) > before; })) << "no fresh listener";
}

std::string RemoteShellTest::listener_fd() {
    std::string number;
    for (const std::string &line : platform_lines()) {
        for (const std::string &start :
             {std::string("sa_listener_loop fd["), std::string("sa_listener_loop reopen fd[")}) {
            if (line.compare(0, start.size(), start) == 0) {
                number = line.substr(start.size(), line.size() - start.size() - 1);
            }
        }
    }
    return number;
}

void RemoteShellTest::write_all(int fd, const std::string &bytes) {
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// Reads until `is_enough` says so, the other side is closed or the time is up.
template <typename Condition>
static std::string read_while(int fd, int limit_ms, Condition is_enough) {
    const int64_t end = desk_now_ms() + limit_ms;
    std::string text;
    while (!is_enough(text)) {
        const int slice = desk_slice_ms(end);
        struct pollfd other = {fd, POLLIN, 0};
        char bytes[16384];
        const int ready = poll(&other, 1, slice);
        if (ready == 0 && slice > 0) {
            continue;
        }
        if (ready != 1) {
            ADD_FAILURE() << "nothing more in time behind: " << text.substr(text.size() > 200 ? text.size() - 200 : 0);
            break;
        }
        const ssize_t count = read(fd, bytes, sizeof(bytes));
        if (count <= 0) {
            break;
        }
        text.append(bytes, static_cast<size_t>(count));
    }
    return text;
}

std::string RemoteShellTest::read_to_end(int fd, int limit_ms) {
    return read_while(fd, limit_ms, [](const std::string &) { return false; });
}

std::string RemoteShellTest::read_until(int fd, const std::string &text, int limit_ms) {
    return read_while(fd, limit_ms, [&](const std::string &so_far) {
        return so_far.size() >= text.size() && so_far.compare(so_far.size() - text.size(), text.size(), text) == 0;
    });
}

std::string RemoteShellTest::request(const std::string &bytes, int limit_ms) {
    write_all(listener, bytes);
    return read_while(listener, limit_ms, [](const std::string &so_far) { return !so_far.empty(); });
}

void RemoteShellTest::acknowledge(const std::string &bytes) {
    const std::string has_read = "open_ptm_connection read size[";
    const int before = count_starts(file_lines(), has_read);
    write_all(listener, bytes);
    EXPECT_TRUE(desk_until([&] { return count_starts(file_lines(), has_read) > before; })) << "not acknowledged";
}

int RemoteShellTest::connect(const std::string &bytes, std::string *name) {
    const std::string path = request(bytes);
    const int fd = desk_open_tty(h, path);
    EXPECT_GE(fd, 0) << path << ": " << desk_error();
    acknowledge();
    if (name != nullptr) {
        *name = path;
    }
    return fd;
}

std::string RemoteShellTest::run_remote(const std::string &command) {
    const int fd = connect("shell:" + command);
    const std::string text = read_to_end(fd);
    close(fd);
    return text;
}

bool RemoteShellTest::wait_reaped(pid_t child, int limit_ms) {
    return wait_file_line("subproc_waiter_service pid[" + std::to_string(child) + "] exit errno[0-Success]", limit_ms);
}

pid_t RemoteShellTest::last_child() {
    // The child may be faster than the line that tells its pid; the line in front of the fork is there.
    const std::string before_fork = "create_subproc_thread fd[";
    const std::string behind_fork = "create_subproc_thread ret_fd[";
    std::vector<std::string> lines;
    EXPECT_TRUE(desk_until([&] {
        lines = file_lines();
        return count_starts(lines, before_fork) == count_starts(lines, behind_fork);
    }));
    pid_t child = -1;
    for (const std::string &line : lines) {
        if (line.compare(0, behind_fork.size(), behind_fork) == 0) {
            child = atoi(line.c_str() + line.find(" pid[") + 5);
        }
    }
    return child;
}

// Without the command channel and the listener: they are made anew, and their numbers change.
std::vector<std::string> RemoteShellTest::kept_descriptors() {
    std::vector<std::string> found;
    for (const std::string &line : descriptors(agent)) {
        const std::string target = line.substr(line.find("->"));
        found.push_back(target.find("ptmx") != std::string::npos ? target : line);
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<pid_t> RemoteShellTest::children() {
    std::vector<pid_t> found;
    for (const std::string &name : desk_list(h, "/proc")) {
        const pid_t pid = atoi(name.c_str());
        const std::string stat = pid > 0 ? desk_file_text(h, "/proc/" + name + "/stat") : "";
        const size_t at = stat.rfind(')');
        if (at != std::string::npos && atoi(stat.c_str() + at + 4) == agent) {  // ") S PPID"
            found.push_back(pid);
        }
    }
    return found;
}

::testing::AssertionResult RemoteShellTest::holds_nothing_more(int limit_ms) {
    const bool is_so = desk_until(
        [&] {
            return kept_descriptors() == descriptors_before && threads(agent) == threads_before && children().empty();
        },
        limit_ms);
    if (is_so) {
        return ::testing::AssertionSuccess();
    }
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << threads(agent) << " threads, before " << threads_before << "; " << children().size()
            << " children; descriptors:";
    for (const std::string &line : descriptors(agent)) {
        failure << "\n  " << line;
    }
    return failure;
}
