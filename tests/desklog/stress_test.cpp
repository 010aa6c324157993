// Logging from threads, a signal handler and forked children of a threaded process at the same time: no call hangs and no
// entry is damaged. Runs inside a handset, where the test itself is the log daemon.
#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

static constexpr char kSocket[] = "/dev/socket/logdw";
static constexpr int kChildren = 300;
static constexpr char kTail[] = "abcdefghijklmnopqrstuvwxyz";

static std::atomic<bool> m_is_over{false};
static std::atomic<int> m_handled{0};

static void log_one(const char *who) {
    __android_log_print(ANDROID_LOG_DEBUG, "stress", "%s %d %s", who, getpid(), kTail);
}

static void on_alarm(int) {
    const int saved_errno = errno;
    errno = EDOM;
    log_one("handler");
    m_handled.fetch_add(errno == EDOM ? 1 : 1000000);
    errno = saved_errno;
}

// Takes and releases the locks of heap and streams, so that a fork or a signal often happens while they are held.
static void use_locks() {
    while (!m_is_over.load()) {
        const std::string text(3000, 'x');
        FILE *nowhere = fopen("/dev/null", "we");
        if (nowhere != nullptr) {
            fputs(text.c_str(), nowhere);
            fclose(nowhere);
        }
        log_one("thread");
    }
}

struct tally {
    int children = 0;
    int threads = 0;
    int handlers = 0;
    int damaged = 0;
};

static void count_one(const std::string &record, tally *counts) {
    const std::string text = record.size() > 11 ? record.substr(11) : "";
    const std::string start("\3stress\0", 8);
    const std::string end = std::string(kTail) + '\0';
    const bool is_whole = text.compare(0, start.size(), start) == 0 && text.size() > start.size() + end.size() &&
                          text.compare(text.size() - end.size(), end.size(), end) == 0;
    counts->damaged += is_whole ? 0 : 1;
    counts->children += text.find("child ") == start.size() ? 1 : 0;
    counts->threads += text.find("thread ") == start.size() ? 1 : 0;
    counts->handlers += text.find("handler ") == start.size() ? 1 : 0;
}

static void collect(int daemon, tally *counts) {
    char bytes[8192];
    struct pollfd waiting = {daemon, POLLIN, 0};
    while (poll(&waiting, 1, m_is_over.load() ? 0 : 20) > 0 || !m_is_over.load()) {
        ssize_t length;
        while ((length = recv(daemon, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
            count_one(std::string(bytes, static_cast<size_t>(length)), counts);
        }
    }
}

static int bind_daemon() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket);
    unlink(kSocket);
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    return fd;
}

// The child logs as a launcher's child does, between fork and exec. Its alarm ends it when it hangs.
static void fork_one() {
    const pid_t child = fork();
    if (child == 0) {
        struct itimerval none = {};
        setitimer(ITIMER_REAL, &none, nullptr);
        signal(SIGALRM, SIG_DFL);
        alarm(30);
        log_one("child");
        log_one("child");
        _exit(0);
    }
    int status = -1;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    EXPECT_EQ(status, 0);
}

TEST(LogStress, NoCallHangsAndNoEntryIsDamaged) {
    const int daemon = bind_daemon();
    tally counts;
    sigset_t alarm_only;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarm_only, nullptr);
    std::thread collector(collect, daemon, &counts);
    pthread_sigmask(SIG_UNBLOCK, &alarm_only, nullptr);
    struct sigaction action = {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    std::thread first(use_locks);
    std::thread second(use_locks);
    const struct itimerval often = {{0, 500}, {0, 500}};
    setitimer(ITIMER_REAL, &often, nullptr);
    for (int i = 0; i < kChildren; i++) {
        fork_one();
    }
    const struct itimerval none = {};
    setitimer(ITIMER_REAL, &none, nullptr);
    m_is_over = true;
    first.join();
    second.join();
    collector.join();
    close(daemon);
    EXPECT_EQ(counts.damaged, 0);
    EXPECT_GT(counts.children, 0);
    EXPECT_GT(counts.threads, 0);
    EXPECT_GT(counts.handlers, 0);
    EXPECT_LT(m_handled.load(), 1000000) << "a handler's errno was changed";
}
