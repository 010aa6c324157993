// Pseudo-terminal endpoints: names, attributes, log lines, and what remains if a step fails.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

#include "pub/pty/pty.h"
#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

static const char kLink[] = "/dev/ttyT";

static std::string link_target(const char *path) {
    char target[256];
    const ssize_t length = readlink(path, target, sizeof(target));
    return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

class Pty : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        memset(&pty, 0, sizeof(pty));
        strcpy(pty.m_pts_mapping_name_a, kLink);
        before = open_descriptors();
    }
    void TearDown() override {
        pass_calls();
        rename_slaves("");
        if (pty.m_ptm_fd > 0) {
            close(pty.m_ptm_fd);
        }
        unlink(kLink);
        rmdir(kLink);
    }

    std::string fd() {
        return std::to_string(pty.m_ptm_fd);
    }
    // The number that the next descriptor gets.
    static std::string next_fd() {
        const int probe = open("/dev/null", O_RDONLY);
        close(probe);
        return std::to_string(probe);
    }
    // The caller logs errno: it must be that of the call that failed, whatever the clean-up does.
    void expect_open_fails_with(int error) {
        errno = 0;
        EXPECT_EQ(pub_pty_open(&pty), -118);
        EXPECT_EQ(errno, error);
    }
    // After a failed open nothing is open and nothing is published.
    void expect_closed() {
        EXPECT_EQ(pty.m_ptm_fd, -1);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_STREQ(pty.m_pts_name_a, "");
        EXPECT_EQ(access(kLink, F_OK), -1);
    }

    struct pub_pty_st pty;
    std::vector<int> before;
};

static const char kOpenReport[] = "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_open(), error_code=-118, errno=";
static const char kMapReport[] = "FILE-pub/pty/pty, LINE-*, FUNC-create_pts_mapping(), error_code=";
static const char kAttrReport[] = "FILE-pub/pty/pty, LINE-*, FUNC-set_ptm_attr(), error_code=";

// What a close leaves in the log when the link is there, or is not.
static std::vector<std::string> closing(bool is_linked) {
    std::vector<std::string> lines = {"pub_pty_close()", "pub_pty_delete_mapping()"};
    if (is_linked) {
        lines.push_back("pub_pty_delete_mapping unlink(/dev/ttyT) ret_val[0]");
    } else {
        lines.insert(lines.end(), {"WARNING !", "pub_pty_delete_mapping \"/dev/ttyT\" does not exist"});
    }
    lines.push_back("pub_pty_close pub_pty_delete_mapping ret_val[0]");
    return lines;
}

static std::vector<std::string> joined(std::vector<std::string> first, const std::vector<std::string> &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// ---- open ----

TEST_F(Pty, OpenTracesEveryStep) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    const std::string slave = pty.m_pts_name_a;
    EXPECT_EQ(platform(),
              (std::vector<std::string>{
                  "pub_pty_open()",
                  "pub_pty_open m_ptm_fd[0]",
                  "pub_pty_open m_ptm_fd[" + fd() + "]",
                  "create_pts_mapping()",
                  "create_pts_mapping pts_name_ptr[" + slave + "]",
                  "create_pts_mapping m_pts_name_a[" + slave + "] ret_val[0]",
                  "create_pts_mapping unlink(/dev/ttyT) ret_val[-1]",
                  "create_pts_mapping symlink(" + slave + ", /dev/ttyT) ret_val[0]",
                  "create_pts_mapping chmod(/dev/ttyT, 432) ret_val[0]",
                  "create_pts_mapping chown(/dev/ttyT, 1000, 1001) ret_val[0]",
                  "create_pts_mapping m_pts_mapping_name_a[/dev/ttyT] ret_val[0]",
                  "set_ptm_attr()",
                  "set_ptm_attr fd[" + fd() + "]",
                  "set_ptm_attr tcgetattr(" + fd() + ") ret_val[0]",
                  "set_ptm_attr tcsetattr(" + fd() + ") ret_val[0]",
                  "set_ptm_attr grantpt(" + fd() + ") ret_val[0]",
                  "set_ptm_attr unlockpt(" + fd() + ") ret_val[0]",
                  "set_ptm_attr fd[" + fd() + "] ret_val[0]",
                  "pub_pty_open \"/dev/ttyT\" exists",
                  "pub_pty_open m_ptm_fd[" + fd() + "]; m_pts_name_a[" + slave + "] m_pts_mapping_name_a[/dev/ttyT]",
              }));
    EXPECT_EQ(file(), std::vector<std::string>{}) << "the endpoint writes to the platform log alone";
}

TEST_F(Pty, OpenPublishesTheSlave) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    EXPECT_GT(pty.m_ptm_fd, 0);
    EXPECT_EQ(link_target(kLink), pty.m_pts_name_a);
    EXPECT_EQ(link_target(kLink), ptsname(pty.m_ptm_fd));
    EXPECT_EQ(owner_of(kLink), "0660 1000:1001");
    struct stat st;
    ASSERT_EQ(lstat(kLink, &st), 0);
    EXPECT_EQ(st.st_uid, 0u) << "mode and owner go to the slave, not to the link";
    const int slave = open(kLink, O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0) << strerror(errno);
    char bytes[8] = "";
    EXPECT_EQ(write(slave, "\r\nx", 3), 3);
    EXPECT_EQ(read(pty.m_ptm_fd, bytes, sizeof(bytes)), 3);
    EXPECT_STREQ(bytes, "\r\nx");
    close(slave);
}

TEST_F(Pty, OpenMakesTheMasterRawAndCloseOnExec) {
    const int fresh = posix_openpt(O_RDWR | O_NOCTTY);
    struct termios wanted;
    struct termios found;
    ASSERT_EQ(tcgetattr(fresh, &wanted), 0);
    close(fresh);
    EXPECT_NE(wanted.c_iflag, 0u);
    wanted.c_iflag = 0;
    wanted.c_oflag &= ~static_cast<tcflag_t>(0x3B);
    wanted.c_lflag &= ~static_cast<tcflag_t>(0x1B & (ISIG | ICANON | ECHO | ECHOE));
    ASSERT_EQ(pub_pty_open(&pty), 0);
    ASSERT_EQ(tcgetattr(pty.m_ptm_fd, &found), 0);
    EXPECT_EQ(found.c_iflag, 0u);
    EXPECT_EQ(found.c_oflag, wanted.c_oflag);
    EXPECT_EQ(found.c_oflag & ONLCR, static_cast<tcflag_t>(ONLCR)) << "left as it was";
    EXPECT_EQ(found.c_lflag, wanted.c_lflag);
    EXPECT_EQ(found.c_cflag, wanted.c_cflag);
    EXPECT_EQ(memcmp(found.c_cc, wanted.c_cc, sizeof(found.c_cc)), 0);
    EXPECT_EQ(fcntl(pty.m_ptm_fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(pty.m_ptm_fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Pty, OpenMakesTheMasterNonBlockingOnRequest) {
    pty.is_nonblock_mode = 1;
    ASSERT_EQ(pub_pty_open(&pty), 0);
    EXPECT_EQ(fcntl(pty.m_ptm_fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    const std::vector<std::string> lines = platform();
    const auto at = std::find(lines.begin(), lines.end(), "pub_util_set_fd_mode()");
    ASSERT_NE(at, lines.end());
    EXPECT_EQ(*(at - 1), "set_ptm_attr fd[" + fd() + "] ret_val[0]");
    EXPECT_EQ(*(at + 1), "pub_util_set_fd_mode fd[" + fd() + "] is_nonblock_mode[1]");
    EXPECT_EQ(*(at + 2), "pub_util_set_fd_mode return ERR_NONE");
}

TEST_F(Pty, OpenOfAnOpenRecordClosesItFirst) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    const int slave = open(kLink, O_RDWR | O_NOCTTY);
    const std::string first = fd();
    forget();
    ASSERT_EQ(pub_pty_open(&pty), 0);
    const std::vector<std::string> lines = platform();
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 6),
              joined({"pub_pty_open()", "pub_pty_open m_ptm_fd[" + first + "]"}, closing(true)));
    EXPECT_EQ(open_descriptors().size(), before.size() + 2) << "one master and the test's own slave";
    char byte;
    EXPECT_EQ(read(slave, &byte, 1), 0) << "the first terminal is gone";
    EXPECT_EQ(owner_of(kLink), "0660 1000:1001");
    close(slave);
}

TEST_F(Pty, OpenReplacesWhateverStandsUnderTheName) {
    ASSERT_EQ(symlink("/dev/pts/99", kLink), 0);  // leads nowhere, as after a kill
    ASSERT_EQ(pub_pty_open(&pty), 0);
    EXPECT_EQ(link_target(kLink), pty.m_pts_name_a);
    ASSERT_EQ(pub_pty_close(&pty), 0);

    write_file(kLink, "a file");
    forget();
    ASSERT_EQ(pub_pty_open(&pty), 0);
    EXPECT_EQ(link_target(kLink), pty.m_pts_name_a);
    const std::vector<std::string> lines = platform();
    const auto at = std::find(lines.begin(), lines.end(), "create_pts_mapping unlink(/dev/ttyT) ret_val[0]");
    ASSERT_NE(at, lines.end());
    EXPECT_EQ(*(at + 1), "create_pts_mapping \"/dev/ttyT\" not exists");
}

TEST_F(Pty, OpenCutsALongSlaveNameAndLinksItAllTheSame) {
    const std::string name = "/data/a-slave-name-of-forty-characters!!";
    ASSERT_EQ(name.size(), 40u);
    const std::string cut = name.substr(0, 39);
    write_file(cut, "");
    rename_slaves(name);
    ASSERT_EQ(pub_pty_open(&pty), 0);
    EXPECT_EQ(pty.m_pts_name_a, cut);
    EXPECT_EQ(link_target(kLink), cut);
    const std::vector<std::string> lines = platform();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 4, lines.begin() + 8),
              (std::vector<std::string>{"create_pts_mapping pts_name_ptr[" + name + "]", "WARNING !", "[PTY]40 > 39",
                                        "create_pts_mapping m_pts_name_a[" + cut + "] ret_val[0]"}));
    unlink(cut.c_str());
}

TEST_F(Pty, OpenOfADescriptorZeroDoesNotCloseIt) {
    pty.m_ptm_fd = 0;
    ASSERT_EQ(pub_pty_open(&pty), 0);
    EXPECT_EQ(fcntl(0, F_GETFD) >= 0, true);
}

// ---- failing steps ----

TEST_F(Pty, OpenOfNothingIsRefused) {
    errno = 0;
    EXPECT_EQ(pub_pty_open(nullptr), -101);
    EXPECT_EQ(platform(),
              (std::vector<std::string>{"pub_pty_open()",
                                        "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_open(), error_code=-101, errno=0"}));
}

TEST_F(Pty, OpenWithoutANameOpensAndClosesAgain) {
    pty.m_pts_mapping_name_a[0] = '\0';
    const std::string number = next_fd();
    errno = 0;
    EXPECT_EQ(pub_pty_open(&pty), -101);
    EXPECT_EQ(platform(), (std::vector<std::string>{
                              "pub_pty_open()",
                              "pub_pty_open m_ptm_fd[0]",
                              "pub_pty_open m_ptm_fd[" + number + "]",
                              "create_pts_mapping()",
                              std::string(kMapReport) + "-101, errno=0",
                              "[PTY]0, 0, 1",
                              "pub_pty_close()",
                              "pub_pty_delete_mapping()",
                              "WARNING !",
                              "pub_pty_delete_mapping \"\" does not exist",
                              "pub_pty_close pub_pty_delete_mapping ret_val[0]",
                          }));
    expect_closed();
}

TEST_F(Pty, OpenFailsWithoutATerminalToOpen) {
    fail_call("open", EACCES);
    expect_open_fails_with(EACCES);
    EXPECT_EQ(platform(), (std::vector<std::string>{
                              "pub_pty_open()",
                              "pub_pty_open m_ptm_fd[0]",
                              "pub_pty_open m_ptm_fd[-1]",
                              "sys call: open() failed! errno = 13",
                              std::string(kOpenReport) + "13",
                              "pub_pty_close()",
                              "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_close(), error_code=-101, errno=13",
                              "0, 1",
                          }));
    expect_closed();
}

TEST_F(Pty, OpenFailsWithoutASlaveName) {
    const std::string number = next_fd();
    fail_call("ptsname_r", ENOTTY);
    expect_open_fails_with(ENOTTY);
    const std::vector<std::string> start = {
        "pub_pty_open()",
        "pub_pty_open m_ptm_fd[0]",
        "pub_pty_open m_ptm_fd[" + number + "]",
        "create_pts_mapping()",
        "create_pts_mapping pts_name_ptr[(null)]",
        "sys call: ptsname() failed! errno = 25",
        "create_pts_mapping m_pts_name_a[] ret_val[-118]",
        "create_pts_mapping m_pts_mapping_name_a[/dev/ttyT] ret_val[-118]",
        "pub_pty_delete_mapping()",
        "WARNING !",
        "pub_pty_delete_mapping \"/dev/ttyT\" does not exist",
    };
    EXPECT_EQ(platform(), joined(start, closing(false)));
    expect_closed();
}

// The lines in front of a failure in the mapping, which is reached on any road.
static std::vector<std::string> up_to_unlink(const std::string &number, const std::string &slave) {
    return {"pub_pty_open()",
            "pub_pty_open m_ptm_fd[0]",
            "pub_pty_open m_ptm_fd[" + number + "]",
            "create_pts_mapping()",
            "create_pts_mapping pts_name_ptr[" + slave + "]",
            "create_pts_mapping m_pts_name_a[" + slave + "] ret_val[0]",
            "create_pts_mapping unlink(/dev/ttyT) ret_val[-1]"};
}

// The slave that the next open will get: the lowest free one.
static std::string next_slave() {
    const int probe = posix_openpt(O_RDWR | O_NOCTTY);
    const std::string name = ptsname(probe);
    close(probe);
    return name;
}

TEST_F(Pty, OpenFailsWithoutALink) {
    const std::string number = next_fd();
    const std::string slave = next_slave();
    fail_call("symlink", EROFS);
    expect_open_fails_with(EROFS);
    const std::vector<std::string> failure = {
        "create_pts_mapping symlink(" + slave + ", /dev/ttyT) ret_val[-1]",
        "sys call: symlink() failed! errno = 30",
        std::string(kMapReport) + "-1, errno=30",
        std::string(kMapReport) + "-118, errno=30",
        "[PTY]map " + slave + " -> /dev/ttyT failed",
        "create_pts_mapping m_pts_mapping_name_a[/dev/ttyT] ret_val[-118]",
        "pub_pty_delete_mapping()",
        "WARNING !",
        "pub_pty_delete_mapping \"/dev/ttyT\" does not exist",
    };
    EXPECT_EQ(platform(), joined(joined(up_to_unlink(number, slave), failure), closing(false)));
    expect_closed();
}

TEST_F(Pty, OpenThatCannotSetTheModeStillGivesTheSlaveAway) {
    const std::string number = next_fd();
    const std::string slave = next_slave();
    fail_call("chmod", EPERM);
    expect_open_fails_with(EPERM);
    const std::vector<std::string> failure = {
        "create_pts_mapping symlink(" + slave + ", /dev/ttyT) ret_val[0]",
        "create_pts_mapping chmod(/dev/ttyT, 432) ret_val[-1]",
        "sys call: chmod() failed! errno = 1",
        std::string(kMapReport) + "-118, errno=1",
        "create_pts_mapping chown(/dev/ttyT, 1000, 1001) ret_val[-118]",
        "sys call: chown() failed! errno = 1",
        std::string(kMapReport) + "-118, errno=1",
        "create_pts_mapping m_pts_mapping_name_a[/dev/ttyT] ret_val[-118]",
        "pub_pty_delete_mapping()",
        "pub_pty_delete_mapping unlink(/dev/ttyT) ret_val[0]",
    };
    EXPECT_EQ(platform(), joined(joined(up_to_unlink(number, slave), failure), closing(false)));
    EXPECT_EQ(last_chown(), "/dev/ttyT 1000:1001");
    expect_closed();
}

struct attr_case {
    const char *call;
    int passed;  // of the four calls
};

static void PrintTo(const attr_case &one, std::ostream *out) {
    *out << one.call;
}

static std::string attr_name(const ::testing::TestParamInfo<attr_case> &one) {
    return one.param.call;
}

class PtyAttr : public Pty, public ::testing::WithParamInterface<attr_case> {};

TEST_P(PtyAttr, StopsAtTheFirstCallThatFails) {
    static const char *const calls[] = {"tcgetattr", "tcsetattr", "grantpt", "unlockpt"};
    const std::string number = next_fd();
    const std::string call = GetParam().call;
    fail_call(call, EIO);
    expect_open_fails_with(EIO);
    std::vector<std::string> wanted = {"set_ptm_attr()", "set_ptm_attr fd[" + number + "]"};
    for (int index = 0; index < GetParam().passed; index++) {
        wanted.push_back("set_ptm_attr " + std::string(calls[index]) + "(" + number + ") ret_val[0]");
    }
    wanted.insert(
        wanted.end(),
        {"sys call: " + call + "() failed! errno = 5", std::string(kAttrReport) + "-118, errno=5",
         "set_ptm_attr " + call + "(" + number + ") ret_val[-1]", "set_ptm_attr fd[" + number + "] ret_val[-118]"});
    const std::vector<std::string> lines = platform();
    ASSERT_GT(lines.size(), 11u);
    EXPECT_EQ(lines[10], "create_pts_mapping m_pts_mapping_name_a[/dev/ttyT] ret_val[0]");
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 11, lines.end()), joined(wanted, closing(true)));
    expect_closed();
}

INSTANTIATE_TEST_SUITE_P(Calls, PtyAttr,
                         ::testing::Values(attr_case{"tcgetattr", 0}, attr_case{"tcsetattr", 1},
                                           attr_case{"grantpt", 2}, attr_case{"unlockpt", 3}),
                         attr_name);

TEST_F(Pty, OpenFailsWhenItsModeCannotBeSet) {
    pty.is_nonblock_mode = 1;
    fail_call("fcntl", EBADF, 1);  // the first marks the master close-on-exec
    expect_open_fails_with(EBADF);
    const std::vector<std::string> lines = platform();
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 6, lines.end()),
              joined({"sys call: fcntl() failed! errno = 9",
                      "FILE-pub/util/util, LINE-*, FUNC-pub_util_set_fd_mode(), error_code=-1, errno=9"},
                     closing(true)));
    expect_closed();
}

TEST_F(Pty, OpenUnderADirectorysNameLeavesTheMasterOpen) {
    ASSERT_EQ(mkdir(kLink, 0755), 0);
    EXPECT_EQ(pub_pty_open(&pty), -118);
    EXPECT_GT(pty.m_ptm_fd, 0) << "a name that cannot be removed keeps its master, on purpose";
    EXPECT_EQ(open_descriptors().size(), before.size() + 1);
    const std::vector<std::string> lines = platform();
    EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end()),
              (std::vector<std::string>{
                  "pub_pty_delete_mapping unlink(/dev/ttyT) ret_val[-1]", "sys call: unlink() failed! errno = 21",
                  "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_delete_mapping(), error_code=-118, errno=21",
                  "pub_pty_close pub_pty_delete_mapping ret_val[-118]"}));
}

// ---- close ----

TEST_F(Pty, CloseLeavesNothing) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    forget();
    EXPECT_EQ(pub_pty_close(&pty), 0);
    EXPECT_EQ(platform(), closing(true));
    expect_closed();
    for (const char byte : pty.m_pts_name_a) {
        EXPECT_EQ(byte, '\0');
    }
    EXPECT_STREQ(pty.m_pts_mapping_name_a, kLink) << "the name survives for the next open";
}

TEST_F(Pty, CloseTwiceFailsTheSecondTime) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    ASSERT_EQ(pub_pty_close(&pty), 0);
    forget();
    errno = 0;
    EXPECT_EQ(pub_pty_close(&pty), -1);
    EXPECT_EQ(platform(), (std::vector<std::string>{
                              "pub_pty_close()",
                              "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_close(), error_code=-101, errno=0", "0, 1"}));
}

TEST_F(Pty, CloseOfNothingFails) {
    errno = 0;
    EXPECT_EQ(pub_pty_close(nullptr), -1);
    EXPECT_EQ(platform(), (std::vector<std::string>{
                              "pub_pty_close()",
                              "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_close(), error_code=-101, errno=0", "1, 0"}));
}

TEST_F(Pty, CloseWithoutItsLinkOnlyWarns) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    ASSERT_EQ(unlink(kLink), 0);
    forget();
    EXPECT_EQ(pub_pty_close(&pty), 0);
    EXPECT_EQ(platform(), closing(false));
    expect_closed();
}

TEST_F(Pty, CloseThatCannotRemoveTheLinkKeepsTheMaster) {
    ASSERT_EQ(pub_pty_open(&pty), 0);
    const int master = pty.m_ptm_fd;
    const std::string slave = pty.m_pts_name_a;
    forget();
    fail_call("unlink", EROFS);
    EXPECT_EQ(pub_pty_close(&pty), -118);
    EXPECT_EQ(pty.m_ptm_fd, master);
    EXPECT_EQ(pty.m_pts_name_a, slave);
    EXPECT_GE(fcntl(master, F_GETFD), 0);
    EXPECT_EQ(platform(),
              (std::vector<std::string>{
                  "pub_pty_close()", "pub_pty_delete_mapping()", "pub_pty_delete_mapping unlink(/dev/ttyT) ret_val[-1]",
                  "sys call: unlink() failed! errno = 30",
                  "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_delete_mapping(), error_code=-118, errno=30",
                  "pub_pty_close pub_pty_delete_mapping ret_val[-118]"}));
}

TEST_F(Pty, DeleteMappingOfNothingIsRefused) {
    errno = 0;
    EXPECT_EQ(pub_pty_delete_mapping(nullptr), -101);
    EXPECT_EQ(platform(),
              (std::vector<std::string>{
                  "pub_pty_delete_mapping()",
                  "FILE-pub/pty/pty, LINE-*, FUNC-pub_pty_delete_mapping(), error_code=-101, errno=0", "[PTY]1"}));
}

TEST_F(Pty, OpenedAndClosedFiftyTimesGainsNothing) {
    for (int round = 0; round < 50; round++) {
        ASSERT_EQ(pub_pty_open(&pty), 0);
        ASSERT_EQ(pub_pty_close(&pty), 0);
    }
    EXPECT_EQ(open_descriptors(), before);
}
