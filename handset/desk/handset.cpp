// handset: boots a desk handset for a person or for a test that needs its paths. State: none beyond main's.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "handset/desk/handset.h"

// Starts over with root's rights; returns only when that cannot be done.
static int become_root(int argc, char **argv) {
    char self[4096];
    ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    self[length > 0 ? length : 0] = '\0';
    std::vector<char *> args = {const_cast<char *>("sudo"), const_cast<char *>("--"), self};
    args.insert(args.end(), argv + 1, argv + argc);
    args.push_back(nullptr);
    execvp("sudo", args.data());
    fprintf(stderr, "handset: needs root, and sudo cannot be started: %s\n", strerror(errno));
    return 126;
}

static bool copy_tree(const std::string &from, const std::string &to) {
    pid_t pid = fork();
    if (pid == 0) {
        execlp("cp", "cp", "-a", "--", from.c_str(), to.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = -1;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0;
}

// Before the services start: yesterday's /data.
static bool load_state(desk *h, const std::string &state) {
    return mkdir(state.c_str(), 0700) == 0 || copy_tree(state + "/.", desk_host_path(h, "/data"));
}

static int run(desk *h, const handset_call &call) {
    desk_program program;
    program.argv = call.program;
    program.uid = static_cast<uid_t>(call.uid);
    program.gid = static_cast<gid_t>(call.gid);
    for (int i = 0; i < 3; i++) {
        program.fds[i] = i;
    }
    desk_child child;
    if (!desk_start(h, program, &child)) {
        fprintf(stderr, "handset: %s\n", desk_error().c_str());
        return 125;
    }
    int status = -1;
    while (status < 0 && child.wait_fd >= 0) {
        status = desk_wait(h, &child, 3600000);
    }
    return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Until a signal or the end of input; the signals were blocked before the boot.
static int stay(desk *h, int signals) {
    printf("handset is up: pid %d\n", static_cast<int>(desk_init_pid(h)));
    printf("  shell in it: handset enter %d\n", static_cast<int>(desk_init_pid(h)));
    printf("  its files:   %s\n", desk_host_path(h, "/").c_str());
    fflush(stdout);
    struct pollfd fds[2] = {{0, POLLIN, 0}, {signals, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            return 1;
        }
        char buf[4096];
        if (fds[1].revents != 0 || (fds[0].revents != 0 && read(0, buf, sizeof(buf)) <= 0)) {
            return 0;
        }
    }
}

static int open_signals(const handset_call &call) {
    if (call.verb != "boot") {
        return -1;  // the others end at once with their handset
    }
    sigset_t ends;
    sigemptyset(&ends);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, number);
    }
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_CLOEXEC);
}

int main(int argc, char **argv) {
    handset_call call;
    int status = handset_parse(argc, argv, &call);
    if (status >= 0) {
        return status;
    }
    if (geteuid() != 0) {
        return become_root(argc, argv);
    }
    int signals = open_signals(call);
    if (!call.state.empty()) {
        call.options.prepare = [&call](desk *h) { return load_state(h, call.state); };
    }
    desk *h = call.verb == "enter" ? desk_attach(call.entered) : desk_boot(call.options);
    if (h == nullptr) {
        fprintf(stderr, "handset: %s\n", desk_error().c_str());
        return 125;
    }
    if (call.verb == "run") {
        status = run(h, call);
    } else {
        status = call.verb == "boot" ? stay(h, signals) : handset_shell(h, call.program);
    }
    if (!call.state.empty() && !copy_tree(desk_host_path(h, "/data") + "/.", call.state)) {
        fprintf(stderr, "handset: /data could not be kept in %s\n", call.state.c_str());
        status = status == 0 ? 1 : status;
    }
    desk_end(h);
    return status;
}
