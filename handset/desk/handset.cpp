// handset: boots a desk handset for a person or for a test that needs its paths. No state.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "handset/desk/handset.h"

// Executes this program again through sudo; returns only on failure.
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

// Before the services start: copies /data from --state.
static bool load_state(desk *h, const std::string &state) {
    return mkdir(state.c_str(), 0700) == 0 || copy_tree(state + "/.", desk_host_path(h, "/data"));
}

// Runs the program with this process' streams.
static int run(desk *h, const handset_call &call) {
    desk_program program;
    program.argv = call.program.empty() ? std::vector<std::string>{"/system/bin/sh"} : call.program;
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

// Closes the streams of the detached process.
static void close_streams() {
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd < 3; fd++) {
        dup2(null, fd);
    }
    close(null);
}

// Forks. The parent copies the child's output until the handset is up, and exits. Returns in the child.
static void detach() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        perror("handset: pipe");
        _exit(125);
    }
    const pid_t pid = fork();
    if (pid == 0) {
        setsid();
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        return;
    }
    close(ends[1]);
    char buf[4096];
    bool is_up = false;
    ssize_t got;
    while ((got = read(ends[0], buf, sizeof(buf))) > 0) {
        is_up = fwrite(buf, 1, static_cast<size_t>(got), stdout) > 0;
    }
    fflush(stdout);
    _exit(is_up ? 0 : 125);
}

// Starts the handset's adb daemon on a TCP port of this machine. It ends with the handset.
static bool start_adbd(desk *h, int port) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    desk_program program;
    program.argv = {"/system/bin/adbd"};
    program.fds[0] = fd;
    desk_child child;
    bool is_started =
        bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0 && listen(fd, 4) == 0;
    if (!is_started) {
        fprintf(stderr, "handset: no adb daemon on port %d: %s\n", port, strerror(errno));
    } else if (!desk_start(h, program, &child)) {
        fprintf(stderr, "handset: no adb daemon: %s\n", desk_error().c_str());
        is_started = false;
    }
    close(fd);
    return is_started;
}

static bool keep_pid(const desk *h, const std::string &path) {
    if (path.empty()) {
        return true;
    }
    FILE *file = fopen(path.c_str(), "we");
    if (file == nullptr || fprintf(file, "%d\n", static_cast<int>(desk_init_pid(h))) < 0 || fclose(file) != 0) {
        fprintf(stderr, "handset: %s cannot be written: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

// The path of a program in the same build directory, or its name to be found in PATH.
static std::string sibling(const std::string &path) {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    const std::string own(self, length > 0 ? static_cast<size_t>(length) : 0);
    const size_t at = own.rfind("/handset/desk/");
    const std::string built = at == std::string::npos ? "" : own.substr(0, at) + "/" + path;
    return access(built.c_str(), X_OK) == 0 ? built : path.substr(path.rfind('/') + 1);
}

static void print_summary(desk *h, const handset_call &call) {
    const int pid = static_cast<int>(desk_init_pid(h));
    const std::string root = desk_host_path(h, "/");
    const std::string sa_host = sibling("host/sa-host");
    printf("handset is up: pid %d\n", pid);
    printf("  shell in it: %s enter %d\n", sibling("handset/desk/handset").c_str(), pid);
    printf("  its files:   %s\n", root.c_str());
    printf("  its agent:   %s --root %s send AT\n", sa_host.c_str(), root.c_str());
    if (call.adb_port != 0) {
        printf("  through adb: adb connect 127.0.0.1:%d && %s --serial 127.0.0.1:%d send AT\n", call.adb_port,
               sa_host.c_str(), call.adb_port);
    }
    if (call.detach) {
        printf("  to end it:   kill %d\n", static_cast<int>(getpid()));
    }
    fflush(stdout);
}

// Waits for a signal or, unless detached, the end of input. The signals were blocked before the boot.
static int stay(desk *h, const handset_call &call, int signals) {
    if (!keep_pid(h, call.pid_file)) {
        return 125;
    }
    print_summary(h, call);
    if (call.detach) {
        close_streams();
    }
    struct pollfd fds[2] = {{call.detach ? -1 : 0, POLLIN, 0}, {signals, POLLIN, 0}};
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
        return -1;  // the other commands end by the signal, and their handset with them
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
    if (call.detach) {
        detach();
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
    if (call.adb_port != 0 && !start_adbd(h, call.adb_port)) {
        status = 125;
    } else if (call.verb == "boot") {
        status = stay(h, call, signals);
    } else if (call.verb == "run" || (call.verb == "enter" && (isatty(0) == 0 || isatty(1) == 0))) {
        status = run(h, call);
    } else {
        status = handset_shell(h, call.program);
    }
    if (!call.pid_file.empty()) {
        unlink(call.pid_file.c_str());
    }
    if (!call.state.empty() && !copy_tree(desk_host_path(h, "/data") + "/.", call.state)) {
        fprintf(stderr, "handset: /data could not be kept in %s\n", call.state.c_str());
        status = status == 0 ? 1 : status;
    }
    desk_end(h);
    return status;
}
