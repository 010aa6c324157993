// The property service's socket: both protocols, one request a connection. State: the listener; a connection owns its
// buffer, its descriptor and its time limit until it is answered.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

#include "init.h"

enum {
    COMMAND_OLD = 1,
    COMMAND_SET = 0x00020001,
    OLD_NAME_SIZE = 32,
    OLD_VALUE_SIZE = 92,
    OLD_RECORD_SIZE = 4 + OLD_NAME_SIZE + OLD_VALUE_SIZE,
    LONGEST_STRING = 0xffff,
    DELIVERY_MS = 2000,
};

struct client {
    int fd;
    uid_t uid;
    int timer;
    std::string received;
};

static void finish(const std::shared_ptr<client> &c, bool reply, uint32_t code) {
    if (reply && send(c->fd, &code, sizeof(code), MSG_NOSIGNAL) < 0) {
        code = PROPERTY_FAILED;  // the client did not wait for its answer
    }
    loop_cancel(c->timer);
    loop_forget(c->fd);
    close(c->fd);
}

// Takes a length and its string from `at` on. 1: taken, 0: not all there yet, -1: longer than a string may be.
static int take_string(const std::string &from, size_t *at, std::string *text) {
    uint32_t length;
    if (from.size() < *at + sizeof(length)) {
        return 0;
    }
    memcpy(&length, from.data() + *at, sizeof(length));
    if (length > LONGEST_STRING) {
        return -1;
    }
    if (from.size() < *at + sizeof(length) + length) {
        return 0;
    }
    *text = from.substr(*at + sizeof(length), length);
    *at += sizeof(length) + length;
    return 1;
}

// True when the client is done with, one way or the other.
static bool serve_set(const std::shared_ptr<client> &c) {
    size_t at = sizeof(uint32_t);
    std::string name;
    std::string value;
    int got = take_string(c->received, &at, &name);
    if (got == 1) {
        got = take_string(c->received, &at, &value);
    }
    if (got == 0) {
        return false;
    }
    finish(c, true, got < 0 ? static_cast<uint32_t>(PROPERTY_READ_DATA) : property_request(name, value, c->uid));
    return true;
}

static bool serve_old(const std::shared_ptr<client> &c) {
    if (c->received.size() < OLD_RECORD_SIZE) {
        return false;
    }
    const char *name = c->received.data() + sizeof(uint32_t);
    const char *value = name + OLD_NAME_SIZE;
    std::string name_text(name, strnlen(name, OLD_NAME_SIZE - 1));
    std::string value_text(value, strnlen(value, OLD_VALUE_SIZE - 1));
    property_request(name_text, value_text, c->uid);
    finish(c, false, 0);
    return true;
}

static bool serve(const std::shared_ptr<client> &c) {
    uint32_t command;
    if (c->received.size() < sizeof(command)) {
        return false;
    }
    memcpy(&command, c->received.data(), sizeof(command));
    if (command == COMMAND_OLD) {
        return serve_old(c);
    }
    if (command == COMMAND_SET) {
        return serve_set(c);
    }
    finish(c, true, PROPERTY_UNKNOWN_COMMAND);
    return true;
}

static uint32_t incomplete(const std::shared_ptr<client> &c) {
    return c->received.size() < sizeof(uint32_t) ? PROPERTY_READ_COMMAND : PROPERTY_READ_DATA;
}

static void client_ready(const std::shared_ptr<client> &c) {
    char buf[4096];
    ssize_t got = recv(c->fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        finish(c, true, incomplete(c));
        return;
    }
    c->received.append(buf, static_cast<size_t>(got));
    serve(c);
}

static void accept_client(int listener) {
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    struct ucred peer = {};
    socklen_t size = sizeof(peer);
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    auto c = std::make_shared<client>(client{fd, peer.uid, 0, ""});
    c->timer = loop_after(DELIVERY_MS, [c] { finish(c, true, incomplete(c)); });
    loop_watch(fd, EPOLLIN, [c](uint32_t) { client_ready(c); });
}

bool property_socket_open() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/socket/property_service");
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(addr.sun_path, 0666) != 0 || listen(fd, 8) != 0) {
        return false;
    }
    return loop_watch(fd, EPOLLIN, [fd](uint32_t) { accept_client(fd); });
}
