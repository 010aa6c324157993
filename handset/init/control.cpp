// Requests of the desk library, on a socket that only root can open. One packet is one request, its words separated by
// NUL. Answers go to the same connection, at once or when the awaited event has happened. A connection is kept until
// its client closes it. State: none but the descriptors in the loop.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

#include "handset/common/journal.h"
#include "handset/init/init.h"

struct connection {
    int fd = -1;  // -1 once the client has gone
};
using connection_ptr = std::shared_ptr<connection>;

static void answer(const connection_ptr &c, const std::string &text) {
    if (c->fd >= 0) {
        send(c->fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

// Sends `text` with `pid` as the sender's pid, which the kernel translates into the receiver's namespace.
static void answer_as(const connection_ptr &c, pid_t pid, const std::string &text) {
    struct iovec part = {const_cast<char *>(text.data()), text.size()};
    alignas(struct cmsghdr) char space[CMSG_SPACE(sizeof(struct ucred))] = {};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof(space);
    struct cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_CREDENTIALS;
    header->cmsg_len = CMSG_LEN(sizeof(struct ucred));
    struct ucred credentials = {pid, 0, 0};
    memcpy(CMSG_DATA(header), &credentials, sizeof(credentials));
    if (sendmsg(c->fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        answer(c, "gone");
    }
}

// spawn UID GID UMASK CWD TERMINAL STREAMS ENVIRONMENT-COUNT environment... argv...
static void spawn(const connection_ptr &c, const std::vector<std::string> &words, const std::vector<int> &fds) {
    size_t variables = words.size() > 8 ? strtoul(words[7].c_str(), nullptr, 10) : 0;
    if (words.size() < 9 + variables) {
        answer(c, "error 22");
        return;
    }
    child_setup setup;
    setup.uid = static_cast<uid_t>(strtoul(words[1].c_str(), nullptr, 10));
    setup.gid = static_cast<gid_t>(strtoul(words[2].c_str(), nullptr, 10));
    setup.umask = atoi(words[3].c_str());
    setup.cwd = words[4];
    setup.terminal = words[5] == "1";
    size_t next = 0;
    for (size_t i = 0; i < 3; i++) {
        if (words[6][i] == '1' && next < fds.size()) {
            setup.fds[i] = fds[next++];
        }
    }
    setup.environment = child_environment();
    auto first = words.begin() + 8;
    auto argv = first + static_cast<std::ptrdiff_t>(variables);
    setup.environment.insert(setup.environment.end(), first, argv);
    setup.argv.assign(argv, words.end());
    setup.search = true;
    setup.waits_exec = true;
    setup.ended = [c](pid_t pid, int status) {
        journal({"exit", "+", std::to_string(pid), std::to_string(status)});
        answer(c, text_format("exit %d", status));
    };
    const pid_t pid = child_start(setup);
    if (pid < 0) {
        answer(c, text_format("error %d", errno));
        return;
    }
    journal({"start", setup.argv[0], std::to_string(pid)});
    answer(c, text_format("pid %d", pid));
}

static std::string error_text(bool done) {
    return text_format("error %d", done ? 0 : errno);
}

static void serve(const connection_ptr &c, const std::vector<std::string> &words, const std::vector<int> &fds) {
    const std::string &verb = words[0];
    if (verb == "spawn") {
        spawn(c, words, fds);
    } else if (verb == "set" && words.size() == 3) {
        answer(c, text_format("code %u", property_request(words[1], words[2], 0)));
    } else if (verb == "kmsg" && words.size() == 2) {
        errno = ENOBUFS;
        answer(c, error_text(kmsg_feed(words[1])));
    } else if (verb == "drained") {
        kmsg_when_drained([c] { answer(c, "error 0"); });
    } else if (verb == "kill" && words.size() == 3) {
        answer(c, error_text(kill(atoi(words[1].c_str()), atoi(words[2].c_str())) == 0));
    } else if (verb == "hostpid" && words.size() == 2) {
        answer_as(c, atoi(words[1].c_str()), "pid");
    } else if (verb == "service" && words.size() == 2) {
        service *sv = service_find(words[1]);
        answer(c, text_format("pid %d", sv != nullptr && sv->pid > 0 ? sv->pid : -1));
    } else if (verb == "sd_card" && words.size() == 2) {
        answer(c, text_format("error %d", sd_card_set(words[1] == "1")));
    } else {
        answer(c, "error 22");
    }
}

static std::vector<int> received_descriptors(struct msghdr *message) {
    std::vector<int> fds;
    for (struct cmsghdr *h = CMSG_FIRSTHDR(message); h != nullptr; h = CMSG_NXTHDR(message, h)) {
        if (h->cmsg_level == SOL_SOCKET && h->cmsg_type == SCM_RIGHTS) {
            fds.resize((h->cmsg_len - CMSG_LEN(0)) / sizeof(int));
            memcpy(fds.data(), CMSG_DATA(h), fds.size() * sizeof(int));
        }
    }
    return fds;
}

static void request_ready(const connection_ptr &c) {
    static char buf[CONTROL_PACKET];
    struct iovec part = {buf, sizeof(buf)};
    alignas(struct cmsghdr) char space[CMSG_SPACE(3 * sizeof(int))] = {};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof(space);
    ssize_t got = recvmsg(c->fd, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        loop_forget(c->fd);
        close(c->fd);
        c->fd = -1;
        return;
    }
    std::vector<int> fds = received_descriptors(&message);
    serve(c, text_split(std::string(buf, static_cast<size_t>(got)), '\0'), fds);
    for (int fd : fds) {
        close(fd);
    }
}

static void accept_client(int listener) {
    auto c = std::make_shared<connection>();
    c->fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (c->fd >= 0) {
        loop_watch(c->fd, EPOLLIN, [c](uint32_t) { request_ready(c); });
    }
}

bool control_open() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, CONTROL_SOCKET);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0 ||
        chmod(addr.sun_path, 0600) != 0 || listen(fd, 64) != 0) {
        return false;
    }
    return loop_watch(fd, EPOLLIN, [fd](uint32_t) { accept_client(fd); });
}
