// Descriptor modes, pid files and the texts of error numbers.
#include "pub/util/util.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "pub/util/error_text.h"
#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static const char kModeReport[] = "FILE-pub/util/util, LINE-*, FUNC-pub_util_set_fd_mode(), error_code=";

class FdMode : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        fd = open("/tmp/mode", O_RDWR | O_CREAT | O_APPEND, 0600);
        ASSERT_GT(fd, 0);
    }
    void TearDown() override {
        pass_calls();
        close(fd);
    }
    int flags() {
        return fcntl(fd, F_GETFL) & (O_NONBLOCK | O_APPEND | O_ACCMODE);
    }

    int fd = -1;
};

TEST_F(FdMode, IsSetAndClearedAndNothingElseChanges) {
    const std::string number = std::to_string(fd);
    EXPECT_EQ(pub_util_set_fd_mode(fd, 1), 0);
    EXPECT_EQ(flags(), O_NONBLOCK | O_APPEND | O_RDWR);
    EXPECT_EQ(pub_util_set_fd_mode(fd, 0), 0);
    EXPECT_EQ(flags(), O_APPEND | O_RDWR);
    EXPECT_EQ(
        platform(),
        (lines{"pub_util_set_fd_mode()", "pub_util_set_fd_mode fd[" + number + "] is_nonblock_mode[1]",
               "pub_util_set_fd_mode return ERR_NONE", "pub_util_set_fd_mode()",
               "pub_util_set_fd_mode fd[" + number + "] is_nonblock_mode[0]", "pub_util_set_fd_mode return ERR_NONE"}));
    EXPECT_EQ(file(), lines{});
}

TEST_F(FdMode, AnyNumberButZeroMeansNonBlocking) {
    EXPECT_EQ(pub_util_set_fd_mode(fd, 256), 0);
    EXPECT_EQ(flags() & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(pub_util_set_fd_mode(fd, 0), 0);
    EXPECT_EQ(pub_util_set_fd_mode(fd, -1), 0);
    EXPECT_EQ(flags() & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(FdMode, OfANegativeDescriptorIsRefusedWithoutACall) {
    errno = 0;
    fail_every_call("fcntl", EIO);
    EXPECT_EQ(pub_util_set_fd_mode(-1, 1), -101);
    EXPECT_EQ(pass_calls(), 0);
    EXPECT_EQ(platform(), (lines{"pub_util_set_fd_mode()", std::string(kModeReport) + "-101, errno=0"}));
}

TEST_F(FdMode, OfAClosedDescriptorFails) {
    EXPECT_EQ(pub_util_set_fd_mode(999, 1), -118);
    EXPECT_EQ(platform(), (lines{"pub_util_set_fd_mode()", "pub_util_set_fd_mode fd[999] is_nonblock_mode[1]",
                                 "sys call: fcntl() failed! errno = 9", std::string(kModeReport) + "-1, errno=9"}));
}

TEST_F(FdMode, ThatCannotBeWrittenFails) {
    fail_call("fcntl", EPERM, 1);
    EXPECT_EQ(pub_util_set_fd_mode(fd, 1), -118);
    EXPECT_EQ(pass_calls(), 1);
    EXPECT_EQ(flags() & O_NONBLOCK, 0);
    const lines found = platform();
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[2], "sys call: fcntl() failed! errno = 1");
    EXPECT_EQ(found[3], std::string(kModeReport) + "-1, errno=1");
}

// ---- pid file ----

class PidFile : public LogLinesTest {};

TEST_F(PidFile, HoldsThePidAndANewline) {
    pub_util_create_pid_file("unit-test");
    EXPECT_EQ(read_file("/tmp/unit-test.pid"), std::to_string(getpid()) + "\n");
    EXPECT_EQ(platform(), (lines{"pub_util_create_pid_file()", "PID of unit-test: " + std::to_string(getpid())}));
}

TEST_F(PidFile, ReplacesAnOlderOne) {
    write_file("/tmp/unit-test.pid", "123456789 and more\n");
    pub_util_create_pid_file("unit-test");
    EXPECT_EQ(read_file("/tmp/unit-test.pid"), std::to_string(getpid()) + "\n");
}

TEST_F(PidFile, OfALongNameIsCutWithItsCommand) {
    const std::string name(70, 'n');
    const std::string pid = std::to_string(getpid());
    const std::string command = ("echo " + pid + " > /tmp/" + name + ".pid").substr(0, 58);
    pub_util_create_pid_file(name.c_str());
    EXPECT_EQ(read_file(command.substr(command.find('/'))), pid + "\n");
    EXPECT_EQ(platform(), (lines{"pub_util_create_pid_file()", "PID of " + name + ": " + pid}));
}

TEST_F(PidFile, ThatCannotBeWrittenIsNobodysError) {
    pub_util_create_pid_file("no/such/directory");
    EXPECT_EQ(platform(),
              (lines{"pub_util_create_pid_file()", "PID of no/such/directory: " + std::to_string(getpid())}));
}

TEST_F(PidFile, WithoutANameIsRefused) {
    errno = 0;
    pub_util_create_pid_file(nullptr);
    EXPECT_EQ(platform(),
              (lines{"pub_util_create_pid_file()",
                     "FILE-pub/util/util, LINE-*, FUNC-pub_util_create_pid_file(), error_code=-101, errno=0", "1"}));
}

// ---- error texts ----

TEST(ErrorText, IsTheCLibrarysOwn) {
    for (int number = 0; number < 140; number++) {
        ASSERT_STREQ(pub_util_error_text(number), strerror(number)) << number;
    }
    for (const int number : {INT_MIN, -100000, -1, 99999, 100000, INT_MAX}) {
        ASSERT_STREQ(pub_util_error_text(number), strerror(number)) << number;
    }
    EXPECT_STREQ(pub_util_error_text(ENOENT), "No such file or directory");
    EXPECT_STREQ(pub_util_error_text(134), "Unknown error 134");
}

// Several threads may log unknown numbers at a time.
TEST(ErrorText, OfUnknownNumbersDoNotShareABuffer) {
    std::vector<std::thread> crowd;
    std::atomic<int> wrong{0};
    for (int index = 0; index < 4; index++) {
        crowd.emplace_back([&wrong, index] {
            const std::string wanted = "Unknown error " + std::to_string(1000 + index);
            for (int count = 0; count < 20000; count++) {
                wrong += pub_util_error_text(1000 + index) != wanted ? 1 : 0;
            }
        });
    }
    for (std::thread &one : crowd) {
        one.join();
    }
    EXPECT_EQ(wrong, 0);
}
