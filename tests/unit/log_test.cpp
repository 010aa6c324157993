// Diagnostic lines: their exact form in both logs, their maximum length, and concurrent writers.
#include "sa/main/base/log.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <thread>

#include "sa/main/base/local_time.h"
#include "sa/main/base/subproc.h"
#include "sa/main/base/text.h"
#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

#define SA_SOURCE "tests/unit"

typedef std::vector<std::string> lines;

class Log : public LogLinesTest {};

// ---- form ----

TEST_F(Log, GoesToBothLogs) {
    sa_log_as("main", "pid[%d]", 5);
    EXPECT_EQ(platform(), lines{"main pid[5]"});
    EXPECT_EQ(file(), lines{"main pid[5]"});
}

TEST_F(Log, NamesItsFunction) {
    sa_log("ret_val[%ld]", -118L);
    EXPECT_EQ(platform(), lines{"TestBody ret_val[-118]"});
    EXPECT_EQ(file(), lines{"TestBody ret_val[-118]"});
}

TEST_F(Log, GoesToOneLogWhereItIsMeantForOne) {
    sa_log_platform("WARNING !");
    sa_log_file("exit");
    sa_log_file_as("main", "exit");
    EXPECT_EQ(platform(), lines{"WARNING !"});
    EXPECT_EQ(file(), (lines{"TestBody exit", "main exit"}));
}

TEST_F(Log, OfAnEntry) {
    sa_log_entry();
    EXPECT_EQ(file(), lines{});
    sa_log_entry_both();
    EXPECT_EQ(platform(), (lines{"TestBody()", "TestBody()"}));
    EXPECT_EQ(file(), lines{"TestBody "}) << "the prefix with its blank, and an empty message";
}

TEST_F(Log, OfAFailedCall) {
    errno = ENOENT;
    sa_log_failed_call("fopen", -1);
    sa_log_error(-101);
    sa_log_file_errno("open");
    EXPECT_EQ(platform(), (lines{"sys call: fopen() failed! errno = 2",
                                 "FILE-tests/unit, LINE-*, FUNC-TestBody(), error_code=-1, errno=2",
                                 "FILE-tests/unit, LINE-*, FUNC-TestBody(), error_code=-101, errno=2"}));
    EXPECT_EQ(file(), lines{"TestBody open errno[2-No such file or directory]"});
}

TEST_F(Log, LineBeginsWithItsTime) {
    const time_t before = time(nullptr);
    sa_log_file("message");
    const time_t after = time(nullptr);
    const std::string text = read_file(SA_LOG_FILE);
    const std::regex form("\\[(\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)\\.\\d\\d\\d\\]TestBody message\n");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(text, parts, form)) << text;
    bool is_now = false;
    for (time_t moment = before; moment <= after; moment++) {
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", localtime(&moment));
        is_now = is_now || parts[1] == stamp;
    }
    EXPECT_TRUE(is_now) << text;
}

TEST_F(Log, TimeEndsWithThreeDigitsOfMilliseconds) {
    static const struct {
        long nanoseconds;
        const char *digits;
    } moments[] = {{0, "000"},        {999999, "000"},    {1000000, "001"},  {7654321, "007"},
                   {99999999, "099"}, {100000000, "100"}, {999999999, "999"}};
    for (const auto &moment : moments) {
        forget();
        stop_nanoseconds(moment.nanoseconds);
        sa_log_file("message");
        stop_nanoseconds(-1);
        const std::string text = read_file(SA_LOG_FILE);
        EXPECT_EQ(text.substr(text.find('.')), std::string(".") + moment.digits + "]TestBody message\n");
    }
}

TEST_F(Log, PlatformLinesHaveTheAgentsTagAndDebugPriority) {
    sa_log_platform("unmistakable");
    platform();  // it is in the journal now
    const std::string journal = read_file("/dev/.desk/log.journal");
    const size_t end = journal.find("\tD\tzr-qel-sa\tunmistakable\n");
    ASSERT_NE(end, std::string::npos);
    const size_t begin = journal.rfind('\n', end) + 1;
    EXPECT_NE(journal.substr(begin, end - begin).find("\tmain\t"), std::string::npos);
}

// ---- bounds ----

TEST_F(Log, LongerThanItsBoundIsCutAndStillEndsItsLine) {
    const std::string text = std::string(2040, 'a') + std::string(3000, 'b');
    sa_log("%s", text.c_str());
    sa_log_file("next");
    EXPECT_EQ(file(), (lines{"TestBody " + text.substr(0, 2047), "TestBody next"}));
    const lines found = platform();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], "TestBody " + text.substr(0, 1023 - 9)) << "the platform's own bound";
}

TEST_F(Log, OfExactlyItsBoundIsWhole) {
    const std::string text(2047, 'x');
    sa_log_file("%s", text.c_str());
    EXPECT_EQ(file(), lines{"TestBody " + text});
}

TEST_F(Log, OfALongFunctionNameKeepsTheMessage) {
    const std::string name(300, 'f');
    sa_log_file_as(name.c_str(), "message");
    const lines found = file();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], std::string(127 - 20, 'f') + "message");
}

TEST_F(Log, WithALineEndInsideKeepsIt) {
    sa_log_file("req[%s]", "AT\r\nSA");
    const std::string text = read_file(SA_LOG_FILE);
    EXPECT_EQ(text.substr(text.find(']') + 1), "TestBody req[AT\r\nSA]\n");
}

// ---- the file's absence ----

TEST_F(Log, RecreatesItsFileUnderTheProcesssMask) {
    const mode_t mask = umask(027);
    sa_log_file("first");
    umask(mask);
    EXPECT_EQ(owner_of(SA_LOG_FILE), "0640 0:0");
    EXPECT_EQ(file(), lines{"TestBody first"});
}

TEST_F(Log, WithoutItsDirectoryGoesToThePlatformAlone) {
    ASSERT_EQ(rename("/data/local/log", "/data/local/away"), 0);
    errno = ERANGE;
    sa_log("message");
    EXPECT_EQ(errno, ERANGE);
    ASSERT_EQ(rename("/data/local/away", "/data/local/log"), 0);
    EXPECT_EQ(platform(), lines{"TestBody message"});
    EXPECT_EQ(file(), lines{});
}

TEST_F(Log, IsNotHeldUpByWhatStandsInItsFilesPlace) {
    ASSERT_EQ(mkfifo(SA_LOG_FILE, 0600), 0);
    sa_log("into a pipe that nobody reads");
    ASSERT_EQ(unlink(SA_LOG_FILE), 0);
    ASSERT_EQ(mkdir(SA_LOG_FILE, 0700), 0);
    sa_log("into a directory");
    ASSERT_EQ(rmdir(SA_LOG_FILE), 0);
    EXPECT_EQ(platform(), (lines{"TestBody into a pipe that nobody reads", "TestBody into a directory"}));
}

TEST_F(Log, KeepsErrno) {
    for (const int error : {0, EIO, 4711}) {
        errno = error;
        sa_log("both");
        EXPECT_EQ(errno, error);
        sa_log_platform("platform");
        EXPECT_EQ(errno, error);
        sa_log_file("file");
        EXPECT_EQ(errno, error);
    }
}

TEST_F(Log, LeavesNoDescriptorOpen) {
    sa_log("the platform's socket is there from now on");
    const std::vector<int> before = open_descriptors();
    for (int index = 0; index < 100; index++) {
        sa_log("line %d", index);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// ---- many writers ----

static const int kLinesEach = 300;

static void write_lines(int writer) {
    const std::string filler(static_cast<size_t>(writer) * 37 + 1, static_cast<char>('a' + writer));
    for (int index = 0; index < kLinesEach; index++) {
        sa_log_file_as("writer", "%d %d %s|", writer, index, filler.c_str());
    }
}

// Every line is one of those that were written, each once.
static void expect_whole_lines(const lines &found, int writers) {
    std::vector<int> next(static_cast<size_t>(writers), 0);
    for (const std::string &line : found) {
        int writer = -1;
        int index = -1;
        ASSERT_EQ(sscanf(line.c_str(), "writer %d %d ", &writer, &index), 2) << line;
        ASSERT_TRUE(writer >= 0 && writer < writers) << line;
        EXPECT_EQ(index, next[static_cast<size_t>(writer)]++) << line;
        const std::string filler(static_cast<size_t>(writer) * 37 + 1, static_cast<char>('a' + writer));
        EXPECT_EQ(line, "writer " + std::to_string(writer) + " " + std::to_string(index) + " " + filler + "|");
    }
    for (const int count : next) {
        EXPECT_EQ(count, kLinesEach);
    }
}

TEST_F(Log, LinesOfThreadsAndProcessesAreNeverTorn) {
    std::vector<pid_t> children;
    for (int writer = 0; writer < 3; writer++) {
        const pid_t pid = fork();
        if (pid == 0) {
            write_lines(writer);
            _exit(0);
        }
        children.push_back(pid);
    }
    std::vector<std::thread> threads;
    for (int writer = 3; writer < 6; writer++) {
        threads.emplace_back(write_lines, writer);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const pid_t pid : children) {
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
    }
    expect_whole_lines(file(), 6);
}

static std::atomic<int> m_ticks{0};

static void log_tick(int) {
    sa_local_time_hold();
    sa_log_file_as("writer", "%d %d b|", 1, m_ticks.load());
    sa_local_time_release();
    m_ticks++;
}

// Handlers that log over a thread that is logging: neither a hang nor a torn line.
TEST_F(Log, LinesOfHandlersAreNeverTorn) {
    m_ticks = 0;
    signal(SIGALRM, log_tick);
    const struct itimerval often = {{0, 500}, {0, 500}};
    const struct itimerval never = {{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &often, nullptr);
    int written = 0;
    while (m_ticks < 200) {
        sa_log_file_as("writer", "%d %d a|", 0, written++);
    }
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
    int next[2] = {0, 0};
    for (const std::string &line : file()) {
        int writer = -1;
        int index = -1;
        ASSERT_EQ(sscanf(line.c_str(), "writer %d %d ", &writer, &index), 2) << line;
        EXPECT_EQ(index, next[writer]++) << line;
        EXPECT_EQ(line,
                  "writer " + std::to_string(writer) + " " + std::to_string(index) + (writer == 0 ? " a|" : " b|"));
    }
    EXPECT_EQ(next[0], written);
    EXPECT_EQ(next[1], m_ticks);
}

// A child that is forked while another thread logs, allocates and looks at the zone must still get its lines out.
TEST_F(Log, OfAForkedChildNeverHangs) {
    std::atomic<bool> is_over{false};
    std::thread other([&] {
        while (!is_over) {
            sa_log("noise %d", 1);
            const time_t moment = static_cast<time_t>(rand()) * 60;
            struct sa_local_time_st local;
            sa_local_time(moment, &local);
        }
    });
    for (int index = 0; index < 100; index++) {
        const pid_t pid = sa_fork();
        if (pid == 0) {
            sa_log_file_as("child", "%d", index);
            _exit(0);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
    }
    is_over = true;
    other.join();
    int children = 0;
    for (const std::string &line : file()) {
        children += line.compare(0, 6, "child ") == 0 ? 1 : 0;
    }
    EXPECT_EQ(children, 100);
}

// ---- texts in fixed buffers ----

class Text : public LogLinesTest {};

TEST_F(Text, ThatFitsIsWhole) {
    char text[8];
    sa_format(text, sizeof(text), "%s-%d", "abc", 123);
    EXPECT_STREQ(text, "abc-123");
    EXPECT_EQ(platform(), lines{});
}

TEST_F(Text, ThatDoesNotFitIsCutSilently) {
    char text[9] = "........";
    sa_format(text, 8, "%s-%d", "abc", 12345);
    EXPECT_STREQ(text, "abc-123");
    EXPECT_EQ(platform(), lines{});
}

TEST_F(Text, CopiedIntoAFieldIsCutWithoutAWord) {
    char field[5] = "....";
    sa_copy_cut(field, 4, "abcdef");
    EXPECT_STREQ(field, "abc");
    sa_copy_cut(field, 4, "ab");
    EXPECT_STREQ(field, "ab");
    sa_copy_cut(field, 4, "");
    EXPECT_STREQ(field, "");
    EXPECT_EQ(platform(), lines{});
}
