// Finding processes by name: which part of a command line counts, and the results.
#include "sa/main/base/process.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

class Lookup : public LogLinesTest {
  protected:
    void TearDown() override {
        pass_calls();
        for (const pid_t pid : children) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    // A process that waits, with this command line. posix_spawn comes back a moment before it has it.
    pid_t start(const std::string &first, const std::string &second = "") {
        char *argv[] = {const_cast<char *>(first.c_str()),
                        second.empty() ? nullptr : const_cast<char *>(second.c_str()), nullptr};
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, "/system/bin/dummy_service", nullptr, nullptr, argv, environ), 0);
        children.push_back(pid);
        while (read_file("/proc/" + std::to_string(pid) + "/cmdline").compare(0, first.size(), first) != 0) {
            sched_yield();
        }
        return pid;
    }
    static int32_t find(const char *name) {
        int32_t pid = -1;
        EXPECT_EQ(sa_util_get_pid(name, &pid), 0);
        return pid;
    }

    std::vector<pid_t> children;
};

TEST_F(Lookup, MatchesAnywhereInTheFirstArgument) {
    const pid_t pid = start("/opt/xneedle-test");
    EXPECT_EQ(find("needle"), pid);
    EXPECT_EQ(find("/opt/x"), pid);
    EXPECT_EQ(find("/opt/xneedle-test"), pid);
    EXPECT_EQ(find("Needle"), 0);
    EXPECT_EQ(find("needle-tests"), 0);
}

TEST_F(Lookup, EndsAtTheFirstBlank) {
    const pid_t pid = start("needle: idle worker");
    EXPECT_EQ(find("needle:"), pid);
    EXPECT_EQ(find("idle"), 0);
    EXPECT_EQ(find("needle: "), 0);
}

TEST_F(Lookup, EndsAtTheFirstArgument) {
    const pid_t pid = start("/opt/haystack", "needle");
    EXPECT_EQ(find("needle"), 0);
    EXPECT_EQ(find("/opt/haystack"), pid);
}

TEST_F(Lookup, SeesTheFirst511Bytes) {
    const pid_t pid = start(std::string(505, 'h') + "needle" + "tail");
    EXPECT_EQ(find("needle"), pid);
    EXPECT_EQ(find("needlet"), 0);
}

TEST_F(Lookup, FindsNothingInAProcessThatHasEnded) {
    const pid_t pid = start("needle");
    kill(pid, SIGKILL);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);  // its entry in /proc remains
    EXPECT_EQ(find("needle"), 0);
}

TEST_F(Lookup, OfOneLeavesItsTrail) {
    const pid_t pid = start("/opt/needle words");
    const std::string found = "find pid[" + std::to_string(pid) + "] buffer[/opt/needle]";
    find("needle");
    EXPECT_EQ(platform(),
              (lines{"sa_util_get_pid()", "sa_util_get_pid process_name[needle]", "sa_util_get_pid " + found}));
    EXPECT_EQ(file(), (lines{"sa_util_get_pid ", "sa_util_get_pid process_name[needle]", "sa_util_get_pid " + found}));
}

TEST_F(Lookup, OfAllIsEndedByAZero) {
    const pid_t first = start("needle");
    const pid_t second = start("/opt/needle");
    int32_t pids[5] = {7, 7, 7, 7, 7};
    int32_t count = -1;
    EXPECT_EQ(sa_util_get_pids("needle", pids, 5, &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(pids[0] + pids[1], first + second);
    EXPECT_EQ(pids[2], 0);
    EXPECT_EQ(pids[3], 7);
    const std::string one = "find pid[" + std::to_string(pids[0]) + "] count[1]";
    const std::string two = "find pid[" + std::to_string(pids[1]) + "] count[2]";
    EXPECT_EQ(platform(),
              (lines{"sa_util_get_pids()", "sa_util_get_pids process_name[needle] pids_length[5]",
                     "sa_util_get_pids " + one, "sa_util_get_pids " + two, "sa_util_get_pids found_count[2]"}));
    EXPECT_EQ(file(), (lines{"sa_util_get_pids ", "sa_util_get_pids process_name[needle] pids_length[5]",
                             "sa_util_get_pids " + one, "sa_util_get_pids " + two, "sa_util_get_pids found_count[2]"}));
}

TEST_F(Lookup, OfAllStopsWhenTheListIsFull) {
    start("needle");
    start("needle");
    int32_t pids[3] = {7, 7, 7};
    int32_t count = -1;
    EXPECT_EQ(sa_util_get_pids("needle", pids, 2, &count), 0);
    EXPECT_EQ(count, 1);
    EXPECT_GT(pids[0], 7);
    EXPECT_EQ(pids[1], 0);
    EXPECT_EQ(pids[2], 7);
}

TEST_F(Lookup, OfAllMayFindNone) {
    int32_t pids[2] = {7, 7};
    int32_t count = -1;
    EXPECT_EQ(sa_util_get_pids("needle", pids, 2, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(pids[0], 0);
    EXPECT_EQ(pids[1], 7);
}

TEST_F(Lookup, RefusesUnusableArguments) {
    int32_t pid = 7;
    int32_t pids[2] = {7, 7};
    int32_t count = 7;
    EXPECT_EQ(sa_util_get_pid(nullptr, &pid), -1);
    EXPECT_EQ(sa_util_get_pid("", &pid), -1);
    EXPECT_EQ(sa_util_get_pid("needle", nullptr), -1);
    EXPECT_EQ(platform(),
              (lines{"sa_util_get_pid()", "sa_util_get_pid invalid parameter", "sa_util_get_pid()",
                     "sa_util_get_pid invalid parameter", "sa_util_get_pid()", "sa_util_get_pid invalid parameter"}));
    EXPECT_EQ(pid, 7);
    forget();
    EXPECT_EQ(sa_util_get_pids(nullptr, pids, 2, &count), -1);
    EXPECT_EQ(platform(), (lines{"sa_util_get_pids()", "sa_util_get_pids invalid parameter"}));
    EXPECT_EQ(file(), (lines{"sa_util_get_pids ", "sa_util_get_pids invalid parameter"}));
    EXPECT_EQ(sa_util_get_pids("", pids, 2, &count), -1);
    EXPECT_EQ(sa_util_get_pids("needle", nullptr, 2, &count), -1);
    EXPECT_EQ(sa_util_get_pids("needle", pids, 1, &count), -1);
    EXPECT_EQ(sa_util_get_pids("needle", pids, 2, nullptr), -1);
    EXPECT_EQ(pids[0], 7);
    EXPECT_EQ(count, 7);
}

TEST_F(Lookup, FailsWithoutTheProcessDirectory) {
    int32_t pids[2];
    int32_t count = 0;
    int32_t pid = 7;
    fail_call("opendir", EMFILE);
    EXPECT_EQ(sa_util_get_pid("needle", &pid), -1);
    EXPECT_EQ(pid, 0);
    EXPECT_EQ(platform(), (lines{"sa_util_get_pid()", "sa_util_get_pid process_name[needle]",
                                 "sa_util_get_pid cannot open /proc"}));
    EXPECT_EQ(file(),
              (lines{"sa_util_get_pid ", "sa_util_get_pid process_name[needle]", "sa_util_get_pid cannot open /proc"}));
    forget();
    fail_call("opendir", EMFILE);
    EXPECT_EQ(sa_util_get_pids("needle", pids, 2, &count), -1);
    EXPECT_EQ(platform(), (lines{"sa_util_get_pids()", "sa_util_get_pids process_name[needle] pids_length[2]",
                                 "sa_util_get_pids cannot open /proc"}));
}

TEST_F(Lookup, LeavesNoDescriptorBehind) {
    start("needle");
    const std::vector<int> before = open_descriptors();
    int32_t pids[2];
    int32_t count = 0;
    for (int round = 0; round < 20; round++) {
        find("needle");
        find("nothing-like-it");
        sa_util_get_pids("needle", pids, 2, &count);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// ---- whether one runs ----

class Running : public Lookup {};

TEST_F(Running, TellsTheProcess) {
    const std::string pid = std::to_string(start("needle"));
    int32_t is_running = 7;
    int32_t found = 7;
    EXPECT_EQ(util_is_process_running("needle", &is_running, &found), 0);
    EXPECT_EQ(is_running, 1);
    EXPECT_EQ(std::to_string(found), pid);
    const lines both = {"sa_util_get_pid process_name[needle]", "sa_util_get_pid find pid[" + pid + "] buffer[needle]",
                        "util_is_process_running ret_val[0] pid[" + pid + "]",
                        "util_is_process_running is_running[1] pid[" + pid + "]"};
    lines wanted = {"util_is_process_running()", "sa_util_get_pid()"};
    wanted.insert(wanted.end(), both.begin(), both.end());
    EXPECT_EQ(platform(), wanted);
    wanted = {"util_is_process_running ", "sa_util_get_pid "};
    wanted.insert(wanted.end(), both.begin(), both.end());
    EXPECT_EQ(file(), wanted);
}

TEST_F(Running, TellsThatThereIsNone) {
    int32_t is_running = 7;
    int32_t pid = 7;
    EXPECT_EQ(util_is_process_running("needle", &is_running, &pid), 0);
    EXPECT_EQ(is_running, 0);
    EXPECT_EQ(pid, 0);
}

TEST_F(Running, TakesAFailedLookupForNone) {
    start("needle");
    int32_t is_running = 7;
    int32_t pid = 7;
    fail_call("opendir", EACCES);
    EXPECT_EQ(util_is_process_running("needle", &is_running, &pid), 0);
    EXPECT_EQ(is_running, 0);
    EXPECT_EQ(pid, 0);
    const lines found = platform();
    ASSERT_GE(found.size(), 2u);
    EXPECT_EQ(found[found.size() - 2], "util_is_process_running ret_val[-1] pid[0]");
    EXPECT_EQ(found.back(), "util_is_process_running is_running[0] pid[0]");
}

TEST_F(Running, RefusesUnusableArguments) {
    int32_t is_running = 7;
    int32_t pid = 7;
    EXPECT_EQ(util_is_process_running(nullptr, &is_running, &pid), -101);
    EXPECT_EQ(platform(), (lines{"util_is_process_running()", "util_is_process_running invalid parameter"}));
    EXPECT_EQ(file(), (lines{"util_is_process_running ", "util_is_process_running invalid parameter"}));
    EXPECT_EQ(util_is_process_running("", &is_running, &pid), -101);
    EXPECT_EQ(util_is_process_running("needle", nullptr, &pid), -101);
    EXPECT_EQ(util_is_process_running("needle", &is_running, nullptr), -101);
    EXPECT_EQ(is_running, 7);
    EXPECT_EQ(pid, 7);
}
