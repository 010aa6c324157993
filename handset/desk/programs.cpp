// Runs programs inside a handset, through its init, and reads its processes. No state: the caller owns a child.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
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

// A file in memory with this content, at its start; -1 on failure.
static int memory_file(const std::string &text) {
    const int fd = memfd_create("desk", MFD_CLOEXEC);
    if (fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        lseek(fd, 0, SEEK_SET) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

static std::string text_of(int fd) {
    std::string text;
    lseek(fd, 0, SEEK_SET);
    read_all(fd, &text);
    return text;
}

// The streams are files, so that neither side ever waits for the other one to read or write.
desk_result desk_run(desk *h, const desk_program &program, const std::string &input, int limit_ms) {
    desk_result result;
    desk_program with_files = program;
    for (int i = 0; i < 3; i++) {
        with_files.fds[i] = memory_file(i == 0 ? input : "");
    }
    desk_child child;
    if (with_files.fds[0] < 0 || with_files.fds[1] < 0 || with_files.fds[2] < 0) {
        desk_fail_errno("memfd_create");
    } else if (desk_start(h, with_files, &child)) {
        result.status = desk_wait(h, &child, limit_ms);
        if (result.status < 0 && child.wait_fd >= 0) {
            desk_kill(h, child.pid, SIGKILL);
            desk_wait(h, &child, 5000);
            desk_fail("it did not end within the limit");
        }
        result.output = text_of(with_files.fds[1]);
        result.errors = text_of(with_files.fds[2]);
        close(child.wait_fd);
    }
    for (const int fd : with_files.fds) {
        close(fd);
    }
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
