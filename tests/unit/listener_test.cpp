// The listener's terminals and its loop with failing calls; descriptor 0, which is rejected first and accepted later.
#include "sa/main/listener.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static const char kLink[] = "/dev/ttyL";

static bool has(const lines &found, const std::string &line) {
    return std::find(found.begin(), found.end(), line) != found.end();
}

// ---- one terminal ----

class OpenPtm : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        before = open_descriptors();
    }
    void TearDown() override {
        pass_calls();
        unlink(kLink);
    }
    // The number that the next descriptor gets.
    static std::string next_fd() {
        const int probe = open("/dev/null", O_RDONLY);
        close(probe);
        return std::to_string(probe);
    }

    char name[SA_PTM_NAME_SIZE] = "";
    std::vector<int> before;
};

TEST_F(OpenPtm, UnderANamePublishesItsSlave) {
    strcpy(name, kLink);
    const int fd = open_ptm(name);
    ASSERT_GT(fd, 0);
    const std::string slave = ptsname(fd);
    EXPECT_STREQ(name, kLink);
    EXPECT_EQ(owner_of(kLink), "0660 1000:1001");
    EXPECT_EQ(owner_of(slave), "0660 1000:1001");
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    const lines both = {"open_ptm symname[/dev/ttyL]", "open_ptm ptm[" + std::to_string(fd) + "]",
                        "open_ptm devname[" + slave + "]", "open_ptm ret[0]"};
    lines wanted = {"open_ptm()"};
    wanted.insert(wanted.end(), both.begin(), both.end());
    wanted.push_back("set_ptm_attr()");
    EXPECT_EQ(platform(), wanted);
    EXPECT_EQ(file(), both);
    close(fd);
}

TEST_F(OpenPtm, WithoutANameTellsItsSlave) {
    const int fd = open_ptm(name);
    ASSERT_GT(fd, 0);
    EXPECT_STREQ(name, ptsname(fd));
    EXPECT_EQ(owner_of(name), "0660 1000:1001");
    EXPECT_EQ(file(),
              (lines{"open_ptm symname[]", "open_ptm ptm[" + std::to_string(fd) + "]",
                     "open_ptm devname[" + std::string(name) + "]", "open_ptm symname[" + std::string(name) + "]"}));
    close(fd);
}

TEST_F(OpenPtm, LeavesControlFlagsAndWhatItDoesNotClear) {
    const int fresh = posix_openpt(O_RDWR | O_NOCTTY);
    struct termios wanted;
    struct termios found;
    ASSERT_EQ(tcgetattr(fresh, &wanted), 0);
    close(fresh);
    const int fd = open_ptm(name);
    ASSERT_EQ(tcgetattr(fd, &found), 0);
    EXPECT_EQ(found.c_iflag, 0u);
    EXPECT_EQ(found.c_oflag, wanted.c_oflag & ~static_cast<tcflag_t>(0x3B));
    EXPECT_EQ(found.c_lflag, wanted.c_lflag & ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE));
    EXPECT_EQ(found.c_cflag, wanted.c_cflag);
    close(fd);
}

TEST_F(OpenPtm, FailsWithoutATerminal) {
    fail_call("open", EMFILE, 1);  // the first is the diagnostic file's
    EXPECT_EQ(open_ptm(name), -1);
    EXPECT_EQ(platform(), (lines{"open_ptm()", "open_ptm symname[]", "open_ptm ptm[-1]",
                                 "open_ptm open error[24-Too many open files]"}));
    EXPECT_EQ(file(), (lines{"open_ptm symname[]", "open_ptm ptm[-1]", "open_ptm open errno[24-Too many open files]"}));
}

TEST_F(OpenPtm, FailsWithoutItsSlavesName) {
    for (const std::string call : {"grantpt", "unlockpt", "ptsname_r"}) {
        forget();
        const std::string number = next_fd();
        fail_call(call, EACCES);
        strcpy(name, kLink);
        EXPECT_EQ(open_ptm(name), -1) << call;
        EXPECT_EQ(platform(), (lines{"open_ptm()", "open_ptm symname[/dev/ttyL]", "open_ptm ptm[" + number + "]",
                                     "open_ptm ptsname error[13-Permission denied]"}));
        EXPECT_EQ(file().back(), "open_ptm ptsname errno[13-Permission denied]") << call;
        EXPECT_EQ(open_descriptors(), before) << call;
        EXPECT_EQ(access(kLink, F_OK), -1) << call;
    }
}

TEST_F(OpenPtm, FailsWithoutItsLink) {
    strcpy(name, kLink);
    fail_call("symlink", ENOSPC);
    EXPECT_EQ(open_ptm(name), -1);
    const lines found = platform();
    ASSERT_GE(found.size(), 2u);
    EXPECT_EQ(found[found.size() - 2], "open_ptm ret[-1]");
    EXPECT_EQ(found.back(), "open_ptm symlink error[28-No space left on device]");
    EXPECT_EQ(file().back(), "open_ptm symlink errno[28-No space left on device]");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(OpenPtm, DoesNotNeedItsAttributes) {
    for (const std::string call : {"tcgetattr", "tcsetattr"}) {
        forget();
        fail_call(call, EIO);
        name[0] = '\0';
        const int fd = open_ptm(name);
        EXPECT_GT(fd, 0) << call;
        const lines found = platform();
        ASSERT_GE(found.size(), 2u);
        EXPECT_EQ(found[found.size() - 2], "sys call: tcsetattr() failed! errno = 5") << call;
        EXPECT_EQ(found.back(), "FILE-sa/main, LINE-*, FUNC-set_ptm_attr(), error_code=-1, errno=5") << call;
        close(fd);
    }
}

TEST_F(OpenPtm, DoesNotNeedItsMode) {
    fail_call("chmod", EPERM);
    const int fd = open_ptm(name);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(last_chown(), std::string(name) + " 1000:1001");
    EXPECT_EQ(platform().back(), "set_ptm_attr()") << "without a word";
    close(fd);
}

// ---- the loop ----

class ListenerLoop : public OpenPtm {
  protected:
    void TearDown() override {
        if (loop.joinable()) {
            loop.join();
        }
        OpenPtm::TearDown();
    }
    void start() {
        loop = std::thread([this] { result = sa_listener_loop(); });
        ASSERT_TRUE(wait_until(
            [] { return read_file("/data/local/log/sa.log").find("sa_listener_loop fd[") != std::string::npos; }));
    }
    static int connect() {
        return open("/dev/ttysa1", O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    // Writes a request and returns what the agent announces.
    static std::string ask(int client, const std::string &request) {
        char path[128] = "";
        struct pollfd answer = {client, POLLIN, 0};
        EXPECT_EQ(write(client, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        EXPECT_EQ(poll(&answer, 1, 10000), 1);
        EXPECT_GT(read(client, path, sizeof(path) - 1), 0);
        return path;
    }
    // Has both the read of this acknowledgement and the loop's next read fail, which ends the loop.
    void end(int client) {
        ask(client, "last");
        fail_calls("read", {EINVAL, EINVAL});
        EXPECT_EQ(write(client, "a", 1), 1);
    }

    std::thread loop;
    int result = -1;
};

TEST_F(ListenerLoop, EndsAtAnyOtherReadError) {
    const std::string number = next_fd();
    fail_call("read", EINVAL);
    EXPECT_EQ(sa_listener_loop(), 0);
    const lines found = platform();
    ASSERT_GT(found.size(), 6u);
    EXPECT_EQ(lines(found.end() - 6, found.end()),
              (lines{"sa_listener_loop fd[" + number + "]", "sa_listener_loop size[-1] service[]",
                     "sa_listener_loop exit while", "close_ptm()", "close_ptm fd[" + number + "] symname[/dev/ttysa1]",
                     "sa_listener_loop exit loop"}));
    const lines text = file();
    ASSERT_GT(text.size(), 4u);
    EXPECT_EQ(text.front(), "sa_listener_loop ");
    EXPECT_EQ(lines(text.end() - 4, text.end()),
              (lines{"sa_listener_loop size[-1] service[]", "sa_listener_loop exit while",
                     "close_ptm fd[" + number + "] symname[/dev/ttysa1]", "sa_listener_loop exit"}));
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(access("/dev/ttysa1", F_OK), -1);
}

TEST_F(ListenerLoop, RefusesDescriptorZeroAtItsStart) {
    const int input = dup(0);
    close(0);
    EXPECT_EQ(sa_listener_loop(), 0);
    const bool is_closed = fcntl(0, F_GETFD) == -1;
    dup2(input, 0);
    close(input);
    EXPECT_TRUE(is_closed);
    const lines found = platform();
    EXPECT_TRUE(has(found, "sa_listener_loop fd[0]"));
    EXPECT_TRUE(has(found, "close_ptm fd[0] symname[/dev/ttysa1]"));
    EXPECT_FALSE(has(found, "sa_listener_loop exit while"));
    EXPECT_EQ(found.back(), "sa_listener_loop exit loop");
}

TEST_F(ListenerLoop, AcceptsDescriptorZeroLaterOn) {
    const int input = dup(0);
    start();
    const int first = connect();
    ASSERT_GT(first, 0);
    close(0);
    close(first);  // the lowest free number is 0 now, and nothing here takes it
    ASSERT_TRUE(wait_until([] { return isatty(0) == 1 && access("/dev/ttysa1", F_OK) == 0; }));
    const int second = connect();
    ASSERT_GT(second, 0);
    end(second);
    loop.join();
    close(second);
    dup2(input, 0);
    close(input);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(has(platform(), "sa_listener_loop reopen fd[0]"));
    EXPECT_TRUE(has(platform(), "open_ptm_connection fd1[0]")) << "and it is served";
}

// A launcher that fails has closed the connection; a second close could hit another thread's descriptor.
TEST_F(ListenerLoop, ClosesAConnectionOnceWhenItsChildCannotBeStarted) {
    start();
    const int client = connect();
    ASSERT_GT(client, 0);
    for (const std::string call : {"fork", "malloc", "pthread_create"}) {
        const std::string path = ask(client, "shell:true");
        fail_call(call, EAGAIN);
        ASSERT_EQ(write(client, "a", 1), 1);
        for (int attempt = 0; attempt < 5000 && access(path.c_str(), F_OK) == 0; attempt++) {
            usleep(1000);
        }
        EXPECT_EQ(access(path.c_str(), F_OK), -1) << call;
        EXPECT_EQ(pass_calls(), 1) << call;
        EXPECT_EQ(bad_closes(), 0) << call;
    }
    end(client);
    loop.join();
    EXPECT_EQ(bad_closes(), 0);
    close(client);
    EXPECT_TRUE(has(platform(), "handle_service ret[-1]"));
    EXPECT_EQ(open_descriptors(), before);
}
