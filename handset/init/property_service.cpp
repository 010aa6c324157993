// The property service: requests to set a property, one a connection, each sent in one piece as libcutils does.
// State: none but the descriptors in the loop.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/init/init.h"

static const char kSocket[] = "/dev/socket/property_service";
static const uint32_t kSetCommand = 0x00020001;

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

// Reads a length and its string at `at`; false when the message ends before.
static bool take_string(const std::string &from, size_t *at, std::string *text) {
    uint32_t length;
    if (from.size() < *at + sizeof(length)) {
        return false;
    }
    memcpy(&length, from.data() + *at, sizeof(length));
    *at += sizeof(length);
    if (from.size() - *at < length) {
        return false;
    }
    *text = from.substr(*at, length);
    *at += length;
    return true;
}

static property_reply serve(const std::string &message, uid_t uid) {
    uint32_t command = 0;
    size_t at = sizeof(command);
    std::string name;
    std::string value;
    if (message.size() >= at) {
        memcpy(&command, message.data(), at);
    }
    if (command != kSetCommand) {
        return PROPERTY_UNKNOWN_COMMAND;
    }
    if (!take_string(message, &at, &name) || !take_string(message, &at, &value)) {
        return PROPERTY_READ_DATA;
    }
    return property_request(name, value, uid);
}

static void client_ready(int fd) {
    char buf[8192];
    const ssize_t got = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    loop_forget(fd);
    if (got > 0) {
        struct ucred peer = {};
        socklen_t size = sizeof(peer);
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
        const property_reply reply = serve(std::string(buf, static_cast<size_t>(got)), peer.uid);
        send(fd, &reply, sizeof(reply), MSG_NOSIGNAL);  // the client may have ended
    }
    close(fd);
}

static void accept_client(int listener) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        loop_watch(fd, EPOLLIN, [fd](uint32_t) { client_ready(fd); });
    }
}

bool property_service_open() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kSocket);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(kSocket, 0666) != 0 || listen(fd, 8) != 0) {
        return false;
    }
    return loop_watch(fd, EPOLLIN, [fd](uint32_t) { accept_client(fd); });
}
