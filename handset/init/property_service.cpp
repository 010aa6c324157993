// The property service: requests to set a property, one a connection. State: none but the listener's and the clients'
// descriptors; a client owns its buffer, descriptor and timer until it is answered.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

#include "handset/init/init.h"

static const char kSocket[] = "/dev/socket/property_service";
static const uint32_t kSetCommand = 0x00020001;
static const uint32_t kMaxString = 0xffff;
static const int kDeliveryMs = 2000;  // from the connection to the end of its request

struct client {
    int fd;
    uid_t uid;
    int timer;
    std::string received;
};

property_reply property_request(const std::string &name, const std::string &value, uid_t uid) {
    const bool is_control = text_starts(name, "ctl.");
    property_reply reply = is_control ? property_check(name, value) : property_set_checked(name, value);
    if (is_control && reply == PROPERTY_OK) {
        journal({"prop", name, value});
        reply = service_control(name.substr(4), value);
    }
    if (reply != PROPERTY_OK) {
        journal({"refused", name, value, text_format("0x%x", reply), std::to_string(uid)});
    }
    // An old init answers before it looks for the service.
    return reply == PROPERTY_CONTROL && options().old_ctl ? PROPERTY_OK : reply;
}

static void finish(const std::shared_ptr<client> &c, property_reply reply) {
    send(c->fd, &reply, sizeof(reply), MSG_NOSIGNAL);  // a client may have gone without waiting
    loop_cancel(c->timer);
    loop_forget(c->fd);
    close(c->fd);
}

// Reads a length and its string at `at`. 1: done, 0: incomplete, -1: longer than a string may be.
static int take_string(const std::string &from, size_t *at, std::string *text) {
    uint32_t length;
    if (from.size() < *at + sizeof(length)) {
        return 0;
    }
    memcpy(&length, from.data() + *at, sizeof(length));
    if (length > kMaxString) {
        return -1;
    }
    if (from.size() < *at + sizeof(length) + length) {
        return 0;
    }
    *text = from.substr(*at + sizeof(length), length);
    *at += sizeof(length) + length;
    return 1;
}

static void serve_set(const std::shared_ptr<client> &c) {
    size_t at = sizeof(uint32_t);
    std::string name;
    std::string value;
    int got = take_string(c->received, &at, &name);
    if (got == 1) {
        got = take_string(c->received, &at, &value);
    }
    if (got != 0) {
        finish(c, got < 0 ? PROPERTY_READ_DATA : property_request(name, value, c->uid));
    }
}

static void serve(const std::shared_ptr<client> &c) {
    uint32_t command;
    if (c->received.size() < sizeof(command)) {
        return;
    }
    memcpy(&command, c->received.data(), sizeof(command));
    if (command == kSetCommand) {
        serve_set(c);
    } else {
        finish(c, PROPERTY_UNKNOWN_COMMAND);
    }
}

static property_reply incomplete(const std::shared_ptr<client> &c) {
    return c->received.size() < sizeof(uint32_t) ? PROPERTY_READ_COMMAND : PROPERTY_READ_DATA;
}

static void client_ready(const std::shared_ptr<client> &c) {
    char buf[4096];
    ssize_t got = recv(c->fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        finish(c, incomplete(c));
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
    c->timer = loop_after(kDeliveryMs, [c] { finish(c, incomplete(c)); });
    loop_watch(fd, EPOLLIN, [c](uint32_t) { client_ready(c); });
}

bool property_service_open() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kSocket);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(kSocket, 0666) != 0 || listen(fd, 8) != 0) {
        return false;
    }
    return loop_watch(fd, EPOLLIN, [fd](uint32_t) { accept_client(fd); });
}
