// Programs of this machine that `view` uses. Owns no state.

#include "view/program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

pid_t program_start(const std::vector<std::string> &words, int in_fd, int out_fd, bool is_quiet) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    if (in_fd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, in_fd, STDIN_FILENO);
    }
    if (out_fd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    }
    if (is_quiet) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGINT);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::vector<char *> argv;
    for (const std::string &word : words) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int error = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    errno = error;
    return error == 0 ? pid : -1;
}

int program_wait(pid_t pid) {
    int status = 0;
    pid_t got;
    do {
        got = waitpid(pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool program_pipe(int *read_fd, int *write_fd) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    *read_fd = ends[0];
    *write_fd = ends[1];
    return true;
}

bool write_whole(int fd, const char *data, size_t len) {
    while (len > 0) {
        ssize_t put = write(fd, data, len);
        if (put < 0 && errno != EINTR) {
            return false;
        }
        data += put > 0 ? put : 0;
        len -= static_cast<size_t>(put > 0 ? put : 0);
    }
    return true;
}
