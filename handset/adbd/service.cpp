// Starting the daemon's services. No state: what is started belongs to the caller.
#include "service.h"

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

static void set_nonblocking(int fd) {
    if (fd >= 0) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
}

static void close_others() {
    for (int fd = 3; fd < 1024; fd++) {
        close(fd);
    }
}

// In the child: its streams and its program. An interactive shell has no command.
[[noreturn]] static void become_shell(const int streams[3], const std::string &command, const std::string &term) {
    for (int fd = 0; fd < 3; fd++) {
        dup2(streams[fd], fd);
    }
    close_others();
    signal(SIGPIPE, SIG_DFL);
    if (!term.empty()) {
        setenv("TERM", term.c_str(), 1);
    }
    if (command.empty()) {
        execl("/system/bin/sh", "-sh", static_cast<char *>(nullptr));
    } else {
        execl("/system/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
    }
    _exit(127);
}

static bool start_on_terminal(const std::string &command, const std::string &term, adb_service *service) {
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        return false;
    }
    fcntl(master, F_SETFD, FD_CLOEXEC);
    service->pid = fork();
    if (service->pid == 0) {
        setsid();
        ioctl(slave, TIOCSCTTY, 0);
        const int streams[3] = {slave, slave, slave};
        become_shell(streams, command, term);
    }
    close(slave);
    service->in = master;
    service->out = master;
    service->has_terminal = true;
    return service->pid > 0;
}

// With packets the three streams are apart; without, one socket is all of them.
static bool start_on_sockets(const std::string &command, const std::string &term, adb_service *service) {
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0 ||
        (service->has_packets && (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0))) {
        return false;
    }
    service->pid = fork();
    if (service->pid == 0) {
        setsid();
        const int streams[3] = {in[1], service->has_packets ? out[1] : in[1], service->has_packets ? err[1] : in[1]};
        become_shell(streams, command, term);
    }
    for (int fd : {in[1], out[1], err[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    service->in = in[0];
    service->out = service->has_packets ? out[0] : in[0];
    service->err = err[0];
    return service->pid > 0;
}

// "shell,v2,TERM=xterm,raw:COMMAND": `arguments` is what stands between "shell" and the colon.
static bool start_shell(const std::string &arguments, const std::string &command, adb_service *service) {
    std::string term;
    bool is_raw = !command.empty();
    for (size_t at = 0, end; at < arguments.size(); at = end) {
        end = arguments.find(',', at + 1);
        end = end == std::string::npos ? arguments.size() : end;
        const std::string word = arguments.substr(at + 1, end - at - 1);
        if (word == "v2") {
            service->has_packets = true;
        } else if (word == "raw" || word == "pty") {
            is_raw = word == "raw";
        } else if (word.compare(0, 5, "TERM=") == 0) {
            term = word.substr(5);
        }
    }
    return is_raw ? start_on_sockets(command, term, service) : start_on_terminal(command, term, service);
}

static bool start_sync(adb_service *service) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    service->pid = fork();
    if (service->pid == 0) {
        dup2(ends[1], STDIN_FILENO);
        close_others();  // a copy of another stream's terminal would keep it from hanging up
        sync_serve(STDIN_FILENO);
        _exit(0);
    }
    close(ends[1]);
    service->in = ends[0];
    service->out = ends[0];
    return service->pid > 0;
}

static bool open_device(const std::string &path, adb_service *service) {
    service->in = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    service->out = service->in;
    return service->in >= 0;
}

bool service_start(const std::string &name, adb_service *service) {
    const size_t colon = name.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    const std::string kind = name.substr(0, colon);
    const std::string rest = name.substr(colon + 1);
    bool is_started = false;
    if (kind == "dev") {
        is_started = open_device(rest, service);
    } else if (kind == "sync") {
        is_started = start_sync(service);
    } else if (kind == "exec") {
        is_started = start_on_sockets(rest, "", service);
    } else if (kind.compare(0, 5, "shell") == 0) {
        is_started = start_shell(kind.substr(5), rest, service);
    }
    for (int fd : {service->in, service->out, service->err}) {
        set_nonblocking(fd);
    }
    return is_started;
}
