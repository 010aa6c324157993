// A client of the adb server: where it listens, how it is started, and its requests, each of which is four hexadecimal
// digits of length and a text, answered by OKAY, or by FAIL and a reason. Owns nothing: a stream belongs to the caller.

#include "adb_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "message.h"
#include "stream.h"

namespace {

constexpr size_t REASON_MAX = 4096;
constexpr int START_MS = 5000;

// Where the server listens, in the notation of ADB_SERVER_SOCKET.
std::string server_address() {
    const char *whole = getenv("ADB_SERVER_SOCKET");
    if (whole != nullptr && *whole != '\0') {
        return whole;
    }
    const char *port = getenv("ANDROID_ADB_SERVER_PORT");
    return std::string("tcp:") + (port != nullptr && *port != '\0' ? port : "5037");
}

int new_socket(int family) {
    return socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Waits for a connection that was begun. Result: the descriptor, or -1 with errno and the descriptor closed.
int finish_connect(int fd, int result, int64_t deadline_ms) {
    int error = result == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        struct pollfd ready = {fd, POLLOUT, 0};
        socklen_t size = sizeof(error);
        int64_t left = deadline_ms - now_ms();
        if (poll(&ready, 1, left > 0 ? static_cast<int>(left) : 0) != 1) {
            error = ETIMEDOUT;
        } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
            error = errno;
        }
    }
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

// "PORT" or "HOST:PORT".
int connect_tcp(const std::string &where, int64_t deadline_ms) {
    size_t colon = where.rfind(':');
    std::string host = colon == std::string::npos ? "127.0.0.1" : where.substr(0, colon);
    std::string port = colon == std::string::npos ? where : where.substr(colon + 1);
    struct addrinfo hints = {};
    struct addrinfo *list = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    int fd = -1;
    for (struct addrinfo *at = list; at != nullptr && fd < 0; at = at->ai_next) {
        fd = new_socket(at->ai_family);
        if (fd >= 0) {
            int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            fd = finish_connect(fd, connect(fd, at->ai_addr, at->ai_addrlen), deadline_ms);
        }
    }
    int error = errno;
    freeaddrinfo(list);
    errno = error;
    return fd;
}

int connect_local(const std::string &name, bool is_abstract, int64_t deadline_ms) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    size_t at = is_abstract ? 1 : 0;
    if (name.size() + at >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path + at, name.data(), name.size());
    socklen_t size =
        static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + at + name.size() + (is_abstract ? 0 : 1));
    int fd = new_socket(AF_UNIX);
    while (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&address), size) != 0) {
        if (errno != EAGAIN || now_ms() >= deadline_ms) {  // EAGAIN: many clients at once, and the queue is full
            int error = errno;
            close(fd);
            errno = error;
            return -1;
        }
        poll(nullptr, 0, 1);
    }
    return fd;
}

bool begins_with(const std::string &text, const char *lead, std::string *rest) {
    size_t len = strlen(lead);
    if (text.compare(0, len, lead) != 0) {
        return false;
    }
    *rest = text.substr(len);
    return true;
}

int connect_server(int64_t deadline_ms) {
    std::string address = server_address();
    std::string rest;
    if (begins_with(address, "tcp:", &rest)) {
        return connect_tcp(rest, deadline_ms);
    }
    if (begins_with(address, "localfilesystem:", &rest)) {
        return connect_local(rest, false, deadline_ms);
    }
    if (begins_with(address, "localabstract:", &rest)) {
        return connect_local(rest, true, deadline_ms);
    }
    errno = EAFNOSUPPORT;
    return -1;
}

// Runs `adb start-server`, which comes back when the server listens. Result: whether it could be run and succeeded.
bool start_server() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = 0; fd < 3; ++fd) {
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);  // the server would keep our streams
    }
    const char *words[] = {"adb", "start-server", nullptr};
    pid_t pid = -1;
    int error = posix_spawnp(&pid, words[0], &actions, nullptr, const_cast<char **>(words), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    while (error == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return error == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void refuse_server(int error, adb_refusal *refusal) {
    refusal->said = text_of("there is no adb server at %s (%s)", server_address().c_str(), strerror(error));
    refusal->advice = "Install adb and run adb start-server, or check ADB_SERVER_SOCKET and ANDROID_ADB_SERVER_PORT.";
}

int reach_server(int64_t deadline_ms, adb_refusal *refusal) {
    int fd = connect_server(deadline_ms);
    if (fd < 0) {
        refuse_server(errno, refusal);
    }
    return fd;
}

// Reads a text that its length precedes.
bool read_text(int fd, int64_t deadline_ms, std::string *text) {
    char digits[5] = "";
    if (!adb_read_exactly(fd, digits, 4, deadline_ms)) {
        return false;
    }
    size_t size = strtoul(digits, nullptr, 16);
    text->resize(size <= REASON_MAX ? size : REASON_MAX);
    return adb_read_exactly(fd, &(*text)[0], text->size(), deadline_ms);
}

void advise(adb_refusal *refusal) {
    static const struct {
        const char *part;
        const char *advice;
        bool may_pass;
    } rows[] = {
        {"more than one", "Name the handset with --serial; adb devices lists them.", false},
        {"no devices", "Plug in the handset and switch on USB debugging, or run adb connect HOST:PORT.", true},
        {"not found", "Check the cable and the serial number; adb devices lists what is there.", true},
        {"offline", "Plug the cable in again, or run adb reconnect.", true},
        {"unauthorized", "Confirm the question on the handset's screen, then try again.", false},
        {"no permissions", "This machine's udev rules do not give you the USB device; adb devices -l tells more.",
         false},
    };
    for (const auto &row : rows) {
        if (refusal->said.find(row.part) != std::string::npos) {
            refusal->advice = row.advice;
            refusal->may_pass = row.may_pass;
            return;
        }
    }
    refusal->advice = "See adb devices -l.";
}

// Sends one request. Result: whether the server or the daemon said OKAY.
bool ask(int fd, const std::string &request, int64_t deadline_ms, adb_refusal *refusal) {
    std::string text = text_of("%04zx", request.size()) + request;
    char status[5] = "";
    if (write_all(fd, text.data(), text.size(), deadline_ms) != 0 || !adb_read_exactly(fd, status, 4, deadline_ms)) {
        refusal->said = "the adb server did not answer";
        refusal->advice = "Try again; adb kill-server ends a server that hangs.";
        return false;
    }
    if (strcmp(status, "OKAY") == 0) {
        return true;
    }
    read_text(fd, deadline_ms, &refusal->said);
    advise(refusal);
    return false;
}

}  // namespace

bool adb_read_exactly(int fd, void *data, size_t size, int64_t deadline_ms) {
    char *at = static_cast<char *>(data);
    while (size > 0) {
        long got = read_some(fd, at, size, deadline_ms);
        if (got <= 0) {
            return false;
        }
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool adb_need_server(int64_t deadline_ms, adb_refusal *refusal) {
    int fd = connect_server(deadline_ms);
    if (fd < 0 && (errno == ECONNREFUSED || errno == ENOENT)) {
        int error = errno;
        fd = start_server() ? connect_server(now_ms() + START_MS) : -1;
        errno = fd < 0 ? error : 0;
    }
    if (fd < 0) {
        refuse_server(errno, refusal);
        return false;
    }
    close(fd);
    return true;
}

bool adb_find_serial(int64_t deadline_ms, std::string *serial, adb_refusal *refusal) {
    int fd = reach_server(deadline_ms, refusal);
    if (fd < 0) {
        return false;
    }
    bool is_found = ask(fd, "host:get-serialno", deadline_ms, refusal) && read_text(fd, deadline_ms, serial);
    close(fd);
    return is_found;
}

int adb_open(const std::string &serial, const std::string &service, int64_t deadline_ms, bool *is_reached,
             adb_refusal *refusal) {
    *is_reached = false;
    int fd = reach_server(deadline_ms, refusal);
    if (fd < 0) {
        return -1;
    }
    *is_reached = ask(fd, "host:transport:" + serial, deadline_ms, refusal);
    if (*is_reached && ask(fd, service, deadline_ms, refusal)) {
        return fd;
    }
    close(fd);
    return -1;
}

bool adb_is_connected(const std::string &serial, int64_t deadline_ms, adb_refusal *refusal) {
    int fd = reach_server(deadline_ms, refusal);
    if (fd < 0) {
        return false;
    }
    std::string state;
    bool is_told =
        ask(fd, "host-serial:" + serial + ":get-state", deadline_ms, refusal) && read_text(fd, deadline_ms, &state);
    close(fd);
    if (is_told && state != "device") {
        refusal->said = "device " + state;
        advise(refusal);
    }
    return is_told && state == "device";
}
