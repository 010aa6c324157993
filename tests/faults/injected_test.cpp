// A sample of the sweep that `inject` runs: the most telling faults of each stage, and what has to come of each.
#include <gtest/gtest.h>

#include <ctype.h>

#include <algorithm>
#include <ostream>

#include "tests/faults/stage.h"

struct sample {
    const char *stage;
    fault injected;
    const char *outcome;
};

// For the names that CTest shows.
static void PrintTo(const sample &s, std::ostream *out) {
    *out << s.stage;
}

class Injected : public ::testing::TestWithParam<sample> {};

TEST_P(Injected, EndsAsForeseen) {
    const sample &wanted = GetParam();
    const auto found =
        std::find_if(stages().begin(), stages().end(), [&](const stage &s) { return s.name == wanted.stage; });
    ASSERT_NE(found, stages().end()) << wanted.stage;
    ending plain;
    ending end;
    std::string defect;
    ASSERT_TRUE(run_stage(*found, nullptr, nullptr, &plain)) << desk_error();
    ASSERT_TRUE(run_stage(*found, &wanted.injected, &plain, &end)) << desk_error();
    EXPECT_NE(end.hit, "") << "nothing was injected";
    EXPECT_EQ(plain_defect(*found, plain), "");
    EXPECT_EQ(outcome(*found, wanted.injected, plain, end, &defect), wanted.outcome);
    EXPECT_EQ(defect, "");
}

static const char kSystem[] = "+SYSTEM=\"true\"";
static const char kAutoStart[] = "+AUTO_START_SERVICE=\"zr-elog\",1";
static const char kList[] = "/data/zr-qel-sa/auto-start.lst";
static const char kSettings[] = "/data/zr-qel-sa.set";
static const char kSaLog[] = "/data/local/log/sa.log";
static const char kPtmx[] = "/dev/ptmx";
static const char kThreadEnds[] = "the command thread ends, the agent goes on";
static const char kNoLogcat[] = "without logcat-events.log, logcat-radio.log, logcat.log";

// 32-bit code has calls of its own for what has become wider.
static const bool kIs32Bit = sizeof(long) == 4;
static const char *const kStatfs = kIs32Bit ? "statfs64" : "statfs";
static const char *const kSetgid = kIs32Bit ? "setgid32" : "setgid";

static const sample kStarts[] = {
    {"start", {"clone", "", "EAGAIN", "1"}, "without ipdata.pcap"},
    {"start", {"openat", "/dev/null", "EMFILE", "2"}, "without logcat-events.log"},
    {"start", {kStatfs, "/data", "EIO", "2"}, "without collectors"},
    {"start", {"openat", kSaLog, "EMFILE", "1+"}, "as ever"},
    {"start, no log directory", {"mkdir", "/data/local/log", "ENOSPC", "1"}, "without collectors"},
    {"start, /data nearly full", {"unlink", "/data/.protect/1", "EROFS", "1"}, "as ever"},
    {"start, command thread",
     {"symlink", "/dev/ttyCMD0", "ENOSPC", "1"},
     "no answer; the command thread ends, the agent goes on"},
};

static const sample kCommands[] = {
    {"AT", {"read", kPtmx, "EIO", "1"}, "no answer"},
    {"AT", {"read", kPtmx, "ENOMEM", "2"}, kThreadEnds},
    {"AT", {"write", kPtmx, "EIO", "1"}, "no answer"},
    {"+QUERY_SERVICE=\"logd\"", {"openat", "/proc", "EMFILE", "1"}, "QUERY_SERVICE: 0 OK"},
    {"+START_SERVICE=\"zr-qel-mla3\"", {"clone3", "", "EAGAIN", "6"}, "ERROR"},
    {"+STOP_SERVICE=\"zr-elog\"", {"kill", "", "EPERM", "1"}, "ERROR"},
    {kAutoStart, {"openat", kList, "ENOSPC", "1"}, "ERROR"},
    {kAutoStart, {"write", kList, "ENOSPC", "1"}, "as ever"},
    {kSystem, {"clone3", "", "EAGAIN", "1"}, "as ever"},
    {kSystem, {"clone3", "", "EAGAIN", "1+"}, "ERROR"},
    {"+KERNEL_LOG=1", {"clone3", "", "EAGAIN", "1"}, "without kmsg.log"},
    {"+KERNEL_LOG=1", {"openat", kSettings, "EACCES", "1"}, "as ever"},
    {"+KERNEL_LOG=1", {"write", kSettings, "ENOSPC", "1"}, "ERROR"},
    {"+KERNEL_LOG=0", {"tgkill", "", "EAGAIN", "2"}, "not stopped: kmsg.log"},
    {"+DMESG_LOG=1", {"rename", "/data/log/SystemLog/dmesg.log", "ENOSPC", "1"}, "as ever"},
    {"+DATA_PACKETS_LOG=1", {"clone", "", "EAGAIN", "1"}, "ERROR"},
    {"+SAVE_LOG", {"mkdir", "/storage/real_sd/logs", "ENOSPC", "1"}, "as ever"},
    {"+DELETE_LOG", {"openat", "/dev/null", "EMFILE", "2"}, "ERROR; without logcat-events.log"},
    {"+DELETE_LOG", {"kill", "", "EPERM", "1"}, "not stopped: ipdata.pcap"},
};

static const sample kTheRest[] = {
    {"the host leaves the command channel",
     {"openat", kPtmx, "EMFILE", "1"},
     "not answered again; the command thread ends, the agent goes on"},
    {"children of the collectors", {kSetgid, "", "EPERM", "1"}, kNoLogcat},
    {"child of the remote shell",
     {"execve", "/system/bin/sh", "ENOENT", "1"},
     "told why: create_subprocess execl(/system/bin/sh) errno[2-No such file or directory] -"},
    {"a collector's child ends", {"wait4", "", "EINTR", "1"}, "as ever"},
    {"a kernel message", {"read", "/proc/kmsg", "EAGAIN", "1"}, "as ever"},
    {"a kernel message", {"read", "/proc/kmsg", "EIO", "2"}, "without kmsg.log"},
    {"remote shell", {"openat", kPtmx, "EMFILE", "1"}, "no shell"},
    {"the host leaves the listener",
     {"symlink", "/dev/ttysa1", "EEXIST", "1"},
     "no fresh listener; the agent ends with status 0 after its teardown"},
    {"SIGTERM", {"unlink", "/dev/ttyCMD0", "EROFS", "1"}, "as ever"},
    {"SIGUSR2", {"writev", "", "EPIPE", "1"}, "does not end"},
};

// "start_no_log_directory_mkdir_ENOSPC1_4": letters, digits and underscores are all that a test's name may hold.
static std::string name_of(const ::testing::TestParamInfo<sample> &info) {
    const sample &s = info.param;
    const bool stays = s.injected.when.back() == '+';
    std::string name;
    for (const char c : std::string(s.stage) + "_" + s.injected.call + "_" + s.injected.error + s.injected.when) {
        const bool may_stand = isalnum(static_cast<unsigned char>(c)) != 0;
        if (may_stand || (!name.empty() && name.back() != '_')) {
            name += may_stand ? c : '_';
        }
    }
    return name + (stays ? "_always" : "") + "_" + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(Starts, Injected, ::testing::ValuesIn(kStarts), name_of);
INSTANTIATE_TEST_SUITE_P(Commands, Injected, ::testing::ValuesIn(kCommands), name_of);
INSTANTIATE_TEST_SUITE_P(TheRest, Injected, ::testing::ValuesIn(kTheRest), name_of);

// ---- the judge

class Judged : public ::testing::Test {
  protected:
    // An agent with two collectors that has met no fault.
    void SetUp() override {
        plain.seen = "OK";
        plain.state.has_channel = plain.state.has_shell = true;
        plain.state.collectors = {"kmsg.log", "logcat.log"};
        plain.state.descriptors = {"/data/local/log/kmsg.log", "/dev/null", "/dev/ptmx", "/proc/kmsg"};
        plain.state.threads = 4;
        end = plain;
        end.hit = "clone (fork)";
        deletion.name = "+DELETE_LOG";
    }

    std::string defect() {
        std::string found;
        outcome(deletion, {"clone", "", "EAGAIN", "1"}, plain, end, &found);
        return found;
    }

    stage deletion;
    ending plain;
    ending end;
};

TEST_F(Judged, AnEndingThatIsForeseenForTheCall) {
    EXPECT_EQ(defect(), "");
    end.seen = "ERROR";
    EXPECT_EQ(defect(), "");
    end.hit = "sendmsg";
    EXPECT_EQ(defect(), "\"ERROR\" is not foreseen");
    deletion.name = "AT";
    end.hit = "clone (fork)";
    EXPECT_EQ(defect(), "\"ERROR\" is not foreseen");
    end.seen = "no answer";
    EXPECT_EQ(defect(), "\"no answer\" is not foreseen");
}

TEST_F(Judged, AnEndByCrashStatusOrSignal) {
    for (const char *how : {"a crash: signal[11-SIGSEGV]", "status 0", "status 42 after its teardown",
                            "signal 6 after its teardown", "status 138 after its teardown"}) {
        end.state.end = how;
        EXPECT_EQ(defect(), "\"the agent ends with " + std::string(how) + "\" is not foreseen");
    }
    plain.state.end = "a crash: signal[7-SIGBUS]";
    EXPECT_EQ(plain_defect(deletion, plain), "a crash: signal[7-SIGBUS]");
}

// A collector that is missing takes what it held along: what is as much as before is one too many.
TEST_F(Judged, WhatIsLeftOfAMissingCollector) {
    end.state.collectors = {"kmsg.log"};
    EXPECT_EQ(defect(), "descriptors left: /dev/null; 1 threads left");
    end.state.descriptors = {"/data/local/log/kmsg.log", "/dev/ptmx", "/proc/kmsg"};
    end.state.threads = 3;
    EXPECT_EQ(defect(), "");
    end.state.collectors = {};
    end.state.threads = 2;
    EXPECT_EQ(defect(), "descriptors left: /data/local/log/kmsg.log, /proc/kmsg");
    end.state.descriptors = {"/dev/ptmx"};
    EXPECT_EQ(defect(), "");
}

TEST_F(Judged, WhatACollectorHoldsThatWasNotStopped) {
    end.hit = "kill";
    end.state.collectors = {"kmsg.log", "logcat.log", "logcat.log"};
    end.state.descriptors = {"/data/local/log/kmsg.log", "/dev/null", "/dev/null", "/dev/ptmx", "/proc/kmsg"};
    end.state.threads = 5;
    EXPECT_EQ(defect(), "");
    end.state.threads = 6;
    EXPECT_EQ(defect(), "1 threads left");
}

// ---- the recording

TEST(Recording, CountsInEachThreadAndNamesWhatIsNotKnown) {
    const std::vector<std::string> recording = whole_calls({
        "11 setuid(1000 <unfinished ...>",
        "12 setuid(1000)                = 0",
        "11 <... setuid resumed>)       = 0",
        "12 symlink(\"/dev/pts/3\", \"/dev/ttysa1\") = 0",
        "12 setuid(1000)                = 0",
        "12 frobnicate(1)               = 0",
    });
    ASSERT_EQ(recording.size(), 5u);
    EXPECT_EQ(recording[0], "11 setuid(1000)       = 0");
    std::vector<std::string> found;
    for (const fault &f : faults_of(recording, 0)) {
        found.push_back(f.call + " " + f.path + " " + f.error + " " + f.when);
    }
    EXPECT_EQ(found, (std::vector<std::string>{"setuid  EAGAIN 1", "setuid  EAGAIN 2", "setuid  EAGAIN 1+",
                                               "symlink /dev/ttysa1 ENOSPC 1", "symlink /dev/ttysa1 EEXIST 1"}));
    EXPECT_EQ(unknown_calls(recording, 0), std::set<std::string>{"frobnicate"});
    EXPECT_EQ(unknown_calls(recording, 5), std::set<std::string>{});
}
