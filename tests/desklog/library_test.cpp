// The log library's datagrams, received on a socket of the test in place of the log daemon's. Runs inside a handset.
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <string>

static constexpr char kSocket[] = "/dev/socket/logdw";
static constexpr size_t kHeader = 11;

struct datagram {
    std::string bytes;
    pid_t sender = -1;
};

static int bind_daemon() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket);
    unlink(kSocket);
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    return fd;
}

// The next datagram; empty when there is none.
static datagram receive(int fd) {
    char bytes[8192];
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred))];
    struct iovec part = {bytes, sizeof bytes};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    datagram got;
    const ssize_t length = recvmsg(fd, &message, MSG_DONTWAIT);
    if (length < 0) {
        return got;
    }
    got.bytes.assign(bytes, static_cast<size_t>(length));
    struct ucred sender = {};
    memcpy(&sender, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof sender);
    got.sender = sender.pid;
    return got;
}

static uint32_t number_at(const std::string &bytes, size_t at, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; i++) {
        value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes.at(at + i))) << (8 * i);
    }
    return value;
}

static std::string payload(const datagram &of) {
    return of.bytes.size() < kHeader ? "" : of.bytes.substr(kHeader);
}

static std::string text_payload(int priority, const std::string &tag, const std::string &text) {
    return static_cast<char>(priority) + tag + '\0' + text + '\0';
}

static std::set<int> sockets() {
    std::set<int> found;
    for (int fd = 0; fd < 64; fd++) {
        int type = 0;
        socklen_t size = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0) {
            found.insert(fd);
        }
    }
    return found;
}

// Runs `body` in a child; its raw wait status, 0 when nothing failed there.
template <typename function>
static int in_child(function body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

struct LogLibrary : ::testing::Test {
    int daemon = bind_daemon();

    LogLibrary() {}
    ~LogLibrary() override {
        close(daemon);
    }
};

TEST_F(LogLibrary, WritesHeaderPriorityTagAndText) {
    struct timespec before = {};
    struct timespec after = {};
    clock_gettime(CLOCK_REALTIME, &before);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_DEBUG, "zr-tag", "value %d of %s", 7, "nine"), 1);
    clock_gettime(CLOCK_REALTIME, &after);
    const datagram got = receive(daemon);
    ASSERT_EQ(got.bytes.size(), kHeader + 1 + 7 + 16);
    EXPECT_EQ(number_at(got.bytes, 0, 1), 0u);
    EXPECT_EQ(number_at(got.bytes, 1, 2), static_cast<uint32_t>(syscall(SYS_gettid)) & 0xffff);
    const uint64_t stamp = number_at(got.bytes, 3, 4) * UINT64_C(1000000000) + number_at(got.bytes, 7, 4);
    EXPECT_GE(stamp, static_cast<uint64_t>(before.tv_sec) * 1000000000 + static_cast<uint64_t>(before.tv_nsec));
    EXPECT_LE(stamp, static_cast<uint64_t>(after.tv_sec) * 1000000000 + static_cast<uint64_t>(after.tv_nsec));
    EXPECT_EQ(payload(got), text_payload(3, "zr-tag", "value 7 of nine"));
    EXPECT_EQ(receive(daemon).bytes, "");
}

TEST_F(LogLibrary, KeepsATextOf1023BytesAndCutsTheRest) {
    for (const size_t length : {0u, 1u, 1022u, 1023u, 1024u, 5000u}) {
        const std::string text(length, 'x');
        __android_log_print(ANDROID_LOG_INFO, "cut", "%s", text.c_str());
        EXPECT_EQ(payload(receive(daemon)), text_payload(4, "cut", text.substr(0, 1023))) << length;
    }
}

TEST_F(LogLibrary, TakesANullTagAsEmpty) {
    __android_log_print(ANDROID_LOG_INFO, nullptr, "no tag");
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "", "no tag"));
}

TEST_F(LogLibrary, KeepsErrno) {
    errno = EACCES;
    __android_log_print(ANDROID_LOG_INFO, "e", "%s", "text");
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "e", "text"));
    close(daemon);
    daemon = -1;
    errno = ENOTTY;
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "e", "to nobody"), 1);
    EXPECT_EQ(errno, ENOTTY);
    unlink(kSocket);
    errno = 0;
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "e", "to no socket"), 1);
    EXPECT_EQ(errno, 0);
}

TEST_F(LogLibrary, OpensOneSocketCloseOnExecAndNonBlocking) {
    EXPECT_EQ(in_child([this] {
                  const std::set<int> before = sockets();
                  for (int i = 0; i < 10; i++) {
                      __android_log_print(ANDROID_LOG_INFO, "one", "%d", i);
                  }
                  std::set<int> opened;
                  for (const int fd : sockets()) {
                      if (before.count(fd) == 0) {
                          opened.insert(fd);
                      }
                  }
                  // An earlier test may have opened it: then it is the one that is not the daemon's.
                  if (opened.empty()) {
                      opened = before;
                      opened.erase(daemon);
                  }
                  ASSERT_EQ(opened.size(), 1u);
                  EXPECT_EQ(fcntl(*opened.begin(), F_GETFD), FD_CLOEXEC);
                  EXPECT_NE(fcntl(*opened.begin(), F_GETFL) & O_NONBLOCK, 0);
              }),
              0);
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(payload(receive(daemon)), text_payload(4, "one", std::to_string(i)));
    }
}

TEST_F(LogLibrary, DaemonThatStartsLaterIsFound) {
    EXPECT_EQ(in_child([this] {
                  close(daemon);
                  unlink(kSocket);
                  const std::set<int> before = sockets();
                  for (int i = 0; i < 1000; i++) {
                      EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "lost", "%d", i), 1);
                  }
                  EXPECT_LE(sockets().size(), before.size() + 1);
                  const int later = bind_daemon();
                  __android_log_print(ANDROID_LOG_INFO, "found", "at once");
                  EXPECT_EQ(payload(receive(later)), text_payload(4, "found", "at once"));
                  EXPECT_EQ(receive(later).bytes, "");
              }),
              0);
}

TEST_F(LogLibrary, RestartedDaemonGetsTheNextEntryOnce) {
    __android_log_print(ANDROID_LOG_INFO, "old", "daemon");
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "old", "daemon"));
    close(daemon);
    daemon = bind_daemon();
    __android_log_print(ANDROID_LOG_INFO, "new", "daemon");
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "new", "daemon"));
    EXPECT_EQ(receive(daemon).bytes, "");
}

TEST_F(LogLibrary, FullQueueDropsEntries) {
    static constexpr int kEntries = 3000;
    for (int i = 0; i < kEntries; i++) {
        EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "full", "%d", i), 1);
    }
    int taken = 0;
    while (!receive(daemon).bytes.empty()) {
        taken++;
    }
    ASSERT_LT(taken, kEntries);
    __android_log_print(ANDROID_LOG_INFO, "after", "room");
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "after", "room"));
}

TEST_F(LogLibrary, ChildSharesTheSocketAndSendsItsOwnIds) {
    __android_log_print(ANDROID_LOG_INFO, "parent", "first");
    EXPECT_EQ(receive(daemon).sender, getpid());
    const std::set<int> before = sockets();
    const pid_t child = fork();
    if (child == 0) {
        __android_log_print(ANDROID_LOG_INFO, "child", "after fork");
        _exit(sockets() == before ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const datagram got = receive(daemon);
    EXPECT_EQ(got.sender, child);
    EXPECT_EQ(number_at(got.bytes, 1, 2), static_cast<uint32_t>(child) & 0xffff);
    EXPECT_EQ(payload(got), text_payload(4, "child", "after fork"));
}

// A launcher may close all descriptors and log before exec. A file that reuses the socket's number must stay unchanged.
TEST_F(LogLibrary, ClosedSocketIsReplacedAndItsNumberNotWrittenTo) {
    __android_log_print(ANDROID_LOG_INFO, "before", "closing");
    receive(daemon);
    EXPECT_EQ(in_child([] {
                  for (int fd = 3; fd < 64; fd++) {
                      close(fd);
                  }
                  __android_log_print(ANDROID_LOG_INFO, "after", "closing");
                  for (int fd = 3; fd < 64; fd++) {
                      close(fd);
                  }
                  const int first = open("/tmp/innocent", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
                  ASSERT_GE(first, 3);
                  for (int fd = first + 1; fd < 16; fd++) {
                      dup2(first, fd);
                  }
                  __android_log_print(ANDROID_LOG_INFO, "after", "reuse");
                  EXPECT_EQ(lseek(first, 0, SEEK_END), 0);
              }),
              0);
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "after", "closing"));
    EXPECT_EQ(payload(receive(daemon)), text_payload(4, "after", "reuse"));
    unlink("/tmp/innocent");
}
