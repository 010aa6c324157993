// Requests to a handset's init, one connection each. No state.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/common/paths.h"
#include "handset/desk/handle.h"

pid_t desk_init_pid(const desk *h) {
    return h->init;
}

std::string desk_host_path(const desk *h, const std::string &path) {
    return "/proc/" + std::to_string(h->init) + "/root" + path;
}

// The path reaches the socket's file in the other mount namespace; the network namespace does not matter for it.
int control_connect(const desk *h) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, desk_host_path(h, CONTROL_SOCKET).c_str(), sizeof(addr.sun_path) - 1);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0) {
        return fd;
    }
    desk_fail_errno("handset's init");
    if (fd >= 0) {
        close(fd);
    }
    return -1;
}

bool control_send(int fd, const std::vector<std::string> &words, const std::vector<int> &fds) {
    std::string packet;
    for (size_t i = 0; i < words.size(); i++) {
        packet.append(i == 0 ? 0 : 1, '\0');
        packet += words[i];
    }
    if (packet.size() > CONTROL_PACKET) {
        return desk_fail("request too long");
    }
    struct iovec part = {&packet[0], packet.size()};
    alignas(struct cmsghdr) char space[CMSG_SPACE(3 * sizeof(int))] = {};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!fds.empty()) {
        message.msg_control = space;
        message.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
        struct cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        memcpy(CMSG_DATA(header), fds.data(), fds.size() * sizeof(int));
    }
    return sendmsg(fd, &message, MSG_NOSIGNAL) >= 0 || desk_fail_errno("handset's init");
}

static void read_sender(struct msghdr *message, pid_t *sender) {
    for (struct cmsghdr *h = CMSG_FIRSTHDR(message); h != nullptr; h = CMSG_NXTHDR(message, h)) {
        if (h->cmsg_level == SOL_SOCKET && h->cmsg_type == SCM_CREDENTIALS) {
            struct ucred credentials;
            memcpy(&credentials, CMSG_DATA(h), sizeof(credentials));
            *sender = credentials.pid;
        }
    }
}

static bool readable(int fd, int limit_ms) {
    int64_t end = desk_now_ms() + limit_ms;
    for (;;) {
        const int slice = desk_slice_ms(end);
        struct pollfd wanted = {fd, POLLIN, 0};
        const int ready = poll(&wanted, 1, slice);
        if (ready > 0) {
            return true;
        }
        if ((ready == 0 && slice == 0) || (ready < 0 && errno != EINTR)) {
            return desk_fail("no answer within the limit");
        }
    }
}

std::string control_receive(int fd, int limit_ms, pid_t *sender) {
    if (!readable(fd, limit_ms)) {
        return "";
    }
    char buf[4096];
    struct iovec part = {buf, sizeof(buf)};
    alignas(struct cmsghdr) char space[CMSG_SPACE(sizeof(struct ucred))] = {};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof(space);
    ssize_t got = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
    if (got <= 0) {
        desk_fail("the handset has ended");
        return "";
    }
    if (sender != nullptr) {
        read_sender(&message, sender);
    }
    return std::string(buf, static_cast<size_t>(got));
}

std::string control_ask(const desk *h, const std::vector<std::string> &words, int limit_ms) {
    int fd = control_connect(h);
    if (fd < 0) {
        return "";
    }
    std::string answer = control_send(fd, words) ? control_receive(fd, limit_ms) : "";
    close(fd);
    return answer;
}

int control_number(const std::string &answer, const std::string &word, int fallback) {
    if (answer.compare(0, word.size() + 1, word + " ") != 0) {
        return fallback;
    }
    return atoi(answer.c_str() + word.size() + 1);
}
