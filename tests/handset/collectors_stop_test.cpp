// Stopping collectors: the signal for each, the log lines for those that have ended, and hundreds of stops and starts
// without leaks.
#include <signal.h>

#include <algorithm>
#include <regex>

#include "tests/support/collectors.h"
#include "tests/support/sanitized.h"

class CollectorsStop : public CollectorTest {
  protected:
    // Lines that a stop of all collectors leaves in the file, from the `from`th line on, without the function's name.
    std::vector<std::string> stop_lines(size_t from = 0);
    // The same in the platform log.
    std::vector<std::string> stop_platform_lines();
    std::string kernel_reader();  // its id, as it stands in the log
};

static const char kStop[] = "sa_kill_all_child_service_ex ";

std::vector<std::string> CollectorsStop::stop_lines(size_t from) {
    return rests(file_lines_from(from), kStop);
}

std::vector<std::string> CollectorsStop::stop_platform_lines() {
    return rests(platform_lines(), kStop);
}

std::string CollectorsStop::kernel_reader() {
    const std::vector<std::string> ids = rests(file_lines(), "start_zr_log_service KMSG m_read_kernel_log_tid[");
    return ids.empty() ? "" : ids.back().substr(0, ids.back().find(']'));
}

TEST_F(CollectorsStop, SignalsEachInTableOrder) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    const std::string reader = kernel_reader();
    const pid_t pids[] = {process_with("/data/local/log/ipdata.pcap"), process_with("/data/local/log/logcat.log"),
                          process_with("/data/local/log/logcat-events.log"),
                          process_with("/data/local/log/logcat-radio.log")};
    std::string text[4];
    std::transform(pids, pids + 4, text, [](pid_t pid) { return std::to_string(pid); });
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(stop_lines(), (std::vector<std::string>{
                                "log_type[I1], svc_pid[0], mthread_id[0]",
                                "log_type[I2], svc_pid[" + text[0] + "], mthread_id[0]",
                                "IPDATA kill[" + text[0] + "] ret_val[0]",
                                "log_type[I3], svc_pid[0], mthread_id[" + reader + "]",
                                "KMSG pthread_kill[" + reader + "] ret_val[0]",
                                "log_type[I4], svc_pid[" + text[1] + "], mthread_id[0]",
                                "LOGCAT kill[" + text[1] + "] ret_val[0]",
                                "log_type[I5], svc_pid[" + text[2] + "], mthread_id[0]",
                                "LOGCAT kill[" + text[2] + "] ret_val[0]",
                                "log_type[I6], svc_pid[" + text[3] + "], mthread_id[0]",
                                "LOGCAT kill[" + text[3] + "] ret_val[0]",
                            }));
    EXPECT_EQ(stop_platform_lines(), (std::vector<std::string>{
                                         "log_type[I1], svc_pid[0], mthread_id[0]",
                                         "log_type[I2], svc_pid[" + text[0] + "], mthread_id[0]",
                                         "kill[0]",
                                         "log_type[I3], svc_pid[0], mthread_id[" + reader + "]",
                                         "pthread_kill(" + reader + ")=0",
                                         "log_type[I4], svc_pid[" + text[1] + "], mthread_id[0]",
                                         "kill(" + text[1] + ")=0",
                                         "log_type[I5], svc_pid[" + text[2] + "], mthread_id[0]",
                                         "kill(" + text[2] + ")=0",
                                         "log_type[I6], svc_pid[" + text[3] + "], mthread_id[0]",
                                         "kill(" + text[3] + ")=0",
                                     }));
    for (const pid_t pid : pids) {
        EXPECT_TRUE(wait_file_line("subproc_waiter_service pid[" + std::to_string(pid) + "] killed by signal[9]"));
        EXPECT_TRUE(desk_wait_gone(h, pid));
    }
    EXPECT_EQ(rests(file_lines(), "start_zr_log_service KMSG m_read_kernel_log_tid[").size(), 2u) << "a new reader";
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 4u);
}

// The end's line shows the id as an int.
static std::string end_of(const std::string &id) {
    return "thread " + std::to_string(static_cast<int>(stoul(id))) + " will be end";
}

TEST_F(CollectorsStop, LogsOneIdForTheKernelReader) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "5,5"}}))));
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "read_kernel_log_loop buf_a["), 0u);
    const std::string reader = kernel_reader();
    EXPECT_EQ(count_lines(platform_lines(), "start_zr_log_service m_read_kernel_log_tid[" + reader + "] ret_val[0]"),
              1);
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(count_lines(stop_lines(), "KMSG pthread_kill[" + reader + "] ret_val[0]"), 1);
    EXPECT_NE(desk_wait_log(h, "zr-qel-pub", end_of(reader)), 0u) << end_of(reader);
    EXPECT_EQ(rests(platform_lines("zr-qel-pub"), "thread ").size(), 1u);
}

TEST_F(CollectorsStop, SaysNothingOfWhatWasNeverStarted) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(stop_lines(), (std::vector<std::string>{
                                "log_type[I1], svc_pid[0], mthread_id[0]", "log_type[I2], svc_pid[0], mthread_id[0]",
                                "log_type[I3], svc_pid[0], mthread_id[0]", "log_type[I4], svc_pid[0], mthread_id[0]",
                                "log_type[I5], svc_pid[0], mthread_id[0]", "log_type[I6], svc_pid[0], mthread_id[0]"}));
}

TEST_F(CollectorsStop, BySignalEndsThemAllAndTheService) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    const pid_t agent = desk_agent_pid(h);
    const std::vector<pid_t> children = children_of(agent);
    ASSERT_EQ(children.size(), 4u);
    ASSERT_TRUE(desk_kill(h, agent, SIGUSR2));
    ASSERT_TRUE(desk_wait_service(h, "zr-qel-sa", "stopped"));
    EXPECT_EQ(rests(stop_lines(), "LOGCAT kill[").size(), 3u);
    EXPECT_EQ(rests(stop_lines(), "IPDATA kill[").size(), 1u);
    EXPECT_EQ(rests(stop_lines(), "KMSG pthread_kill[").size(), 1u);
    for (const pid_t pid : children) {
        EXPECT_TRUE(desk_wait_gone(h, pid));
    }
    EXPECT_EQ(desk_agent_pid(h), -1) << "init keeps it stopped";
}

TEST_F(CollectorsStop, OfOnesThatEndedByThemselvesFailsHarmlessly) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{2, "5,5"}, {5, "5,5"}}))));
    const pid_t tcpdump = process_with("/data/local/log/ipdata.pcap");
    const pid_t logcat = process_with("/data/local/log/logcat-events.log");
    ASSERT_TRUE(desk_kill(h, tcpdump, SIGKILL));
    ASSERT_TRUE(desk_kill(h, logcat, SIGKILL));
    ASSERT_TRUE(desk_wait_gone(h, tcpdump));
    ASSERT_TRUE(desk_wait_gone(h, logcat));
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    const std::string packets = std::to_string(tcpdump);
    const std::string events = std::to_string(logcat);
    EXPECT_TRUE(
        in_order(stop_lines(),
                 {"log_type[I2], svc_pid[" + packets + "], mthread_id[0]", "IPDATA kill[" + packets + "] ret_val[-1]",
                  "kill process [I2] failed, svc_pid[" + packets + "], errno[No such process]",
                  "log_type[I5], svc_pid[" + events + "], mthread_id[0]", "LOGCAT kill[" + events + "] ret_val[-1]",
                  "kill process [I5] failed, svc_pid[" + events + "], errno[No such process]"}));
    EXPECT_TRUE(in_order(
        stop_platform_lines(),
        {"kill[-1]", "kill process [I2] failed, svc_pid[" + packets + "], errno[No such process]",
         "kill(" + events + ")=-1", "kill process [I5] failed, svc_pid[" + events + "], errno[No such process]"}));
    EXPECT_GT(process_with("/data/local/log/logcat-events.log"), 0);
}

// The reader's id outlives the reader. Whoever came next, the command reader first of all, is not signalled for it.
TEST_F(CollectorsStop, OfAReaderThatEndedAtOnceLeavesTheCommandChannelAlone) {
    desk_options options = with_log_property(log_property({{3, "5,5"}}));
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_EQ(desk_shell(h, "/usr/bin/mount --bind /dev/socket/logdw /proc/kmsg").status, 0);  // nothing to open
    ASSERT_NO_FATAL_FAILURE(start_agent());
    ASSERT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
    const std::string reader = kernel_reader();
    ASSERT_NE(reader, "0");
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_TRUE(in_order(
        stop_lines(),
        {"log_type[I3], svc_pid[0], mthread_id[" + reader + "]", "KMSG pthread_kill[" + reader + "] ret_val[3]",
         "kill thread [I3] failed, mthread_id[" + reader + "], errno[No such process]"}));
    EXPECT_EQ(count_lines(stop_platform_lines(), "pthread_kill(" + reader + ")=3"), 1);
    for (int round = 0; round < 20; round++) {
        ASSERT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; })) << "a reader that lives is stopped";
        ASSERT_EQ(command("+DELETE_LOG"), kOk) << round;
        ASSERT_EQ(ask("AT\r"), kOk) << round;
    }
    EXPECT_EQ(count_lines(platform_lines("zr-qel-pub"), "pub_util_handle_thread_signal()"), 0);
    EXPECT_TRUE(agent_ends().empty());
}

// Where the property puts a token elsewhere, the position decides what is killed; the text is only shown.
TEST_F(CollectorsStop, GoesByPositionAndNotByType) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/data/local/log,I4,0,0,I5,1,1,I6,1,1,I5,1,1,I2,0,0,I3,0,0")));
    const std::string tcpdump = std::to_string(process_with("/data/local/log/ipdata.pcap"));
    const std::string logcat = std::to_string(process_with("/data/local/log/logcat-events.log"));
    const std::string reader = kernel_reader();
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_TRUE(
        in_order(stop_lines(),
                 {"log_type[I5], svc_pid[" + tcpdump + "], mthread_id[0]", "IPDATA kill[" + tcpdump + "] ret_val[0]",
                  "log_type[I6], svc_pid[0], mthread_id[" + reader + "]",
                  "log_type[I5], svc_pid[" + logcat + "], mthread_id[0]", "LOGCAT kill[" + logcat + "] ret_val[0]",
                  "log_type[I2], svc_pid[0], mthread_id[0]", "log_type[I3], svc_pid[0], mthread_id[0]"}));
}

// ---- rounds ----

class CollectorRounds : public CollectorTest {
  protected:
    int resident_kb() {
        return stoi(status(desk_agent_pid(h), "VmRSS"));
    }
    // Number of open descriptors once nothing of the last round is left but so many threads.
    size_t settled_descriptors(int threads_expected);
};

static std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

size_t CollectorRounds::settled_descriptors(int threads_expected) {
    const pid_t agent = desk_agent_pid(h);
    EXPECT_TRUE(desk_until([&] { return threads(agent) == threads_expected; })) << threads(agent) << " threads";
    return descriptors(agent).size();
}

// One child and the kernel reader, which is stopped at any moment of its work: kernel messages come all the time.
TEST_F(CollectorRounds, TwoHundredLeaveNothingBehind) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "3,5"}, {6, "3,5"}}))));
    const pid_t agent = desk_agent_pid(h);
    size_t open_before = 0;
    int resident_before = 0;
    for (int round = 0; round < 200; round++) {
        if (round % 10 == 0) {
            for (int i = 0; i < 300; i++) {
                ASSERT_TRUE(desk_kmsg_feed(h, "<6>[    1.000000] one of many messages " + std::to_string(i) + "\n"));
            }
        }
        ASSERT_EQ(command("+DELETE_LOG"), kOk) << round;
        if (round == 20) {
            open_before = settled_descriptors(4);
            resident_before = resident_kb();
        }
    }
    EXPECT_EQ(settled_descriptors(4), open_before);
    EXPECT_EQ(children_of(agent).size(), 1u) << "the last child, and no zombie";
    EXPECT_TRUE(desk_until([&] { return desk_pids(h, "logcat").size() == 1; })) << "the child has become its program";
    // The address sanitizer keeps freed memory for a while.
    EXPECT_TRUE(is_sanitized() || resident_kb() < resident_before + 256) << resident_kb() - resident_before << " kB";
    EXPECT_EQ(desk_agent_pid(h), agent);
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>[    2.000000] the last one\n"));
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/kmsg.log", "the last one\n"));
}

// A reader that is stopped while it writes a line leaves that line whole, and nobody waits for it afterwards.
TEST_F(CollectorRounds, NoStopTearsALine) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "9,5"}}))));
    for (int round = 0; round < 40; round++) {
        ASSERT_EQ(command("+KERNEL_LOG=1"), kOk) << round;  // a second reader, stopped while it shifts generations
        ASSERT_EQ(command("+KERNEL_LOG=0"), kOk) << round;
    }
    const std::regex whole("\\[[0-9-]+ [0-9:.]+\\][a-z_]+ [^\n]*|\\]");  // or the end of a message with a line end
    for (const std::string &line : lines_of(desk_file_text(h, kSaLog))) {
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    }
}

TEST_F(CollectorRounds, TenOfAllCollectors) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    const size_t before = settled_descriptors(7);
    for (int round = 0; round < 10; round++) {
        ASSERT_EQ(command("+DELETE_LOG"), kOk) << round;
    }
    // The youngest kernel reader may still have its files to open.
    EXPECT_TRUE(desk_until([&] { return settled_descriptors(7) == before; })) << before;
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 4u);
}
