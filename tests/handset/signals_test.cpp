// Handled signals: exit status, log lines, what the teardown closes and what continues.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tests/support/collectors.h"
#include "tests/support/crash.h"

static const char kLink[] = "/dev/ttyCMD0";

// Two log readers and the copier of kernel messages.
static const char kCollectors[] = "/data/local/log,I1,0,0,I2,0,0,I3,2,100,I4,2,100,I5,2,100,I6,0,0";

class Signals : public AgentTest {
  protected:
    // A handset whose agent is started by launch(): what it leaves at its end stays.
    void boot_without_agent(bool collectors = false) {
        desk_options options = quiet_options();
        options.agent = false;
        if (collectors) {
            options.properties = {{"persist.sys.install.zr.log", kCollectors}};
        }
        boot_only(options);
    }

    void start(bool collectors = false) {
        ASSERT_NO_FATAL_FAILURE(boot_without_agent(collectors));
        agent = launch();
        ASSERT_TRUE(wait_listening(agent.pid));
        ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_listener_loop fd["));
        ASSERT_TRUE(wait_programs());
        open_channel();
        ASSERT_EQ(ask("AT\r"), kOk);
        ASSERT_TRUE(wait_reading());
    }

    // The thread that is not the main one, when there are two.
    pid_t reader() {
        for (const std::string &name : desk_list(h, "/proc/" + std::to_string(agent.pid) + "/task")) {
            if (atoi(name.c_str()) != agent.pid) {
                return atoi(name.c_str());
            }
        }
        return -1;
    }

    // The command thread's id, as the log line of its creation shows it.
    unsigned long command_thread_id() {
        const std::string text = desk_file_text(h, kSaLog);
        const std::string before = "]sa_handle_init m_read_cmd_thread_id[";
        const size_t at = text.find(before);
        return at == std::string::npos ? 0 : strtoul(text.c_str() + at + before.size(), nullptr, 10);
    }

    // Whether the main thread sleeps in the call that reads the configuration.
    bool is_asleep_in_start() {
        const std::vector<std::string> lines = process_lines(agent.pid);
        const std::string status = desk_file_text(h, "/proc/" + std::to_string(agent.pid) + "/status");
        return count_lines(lines, "parse_sa_cfg()") > 0 && status.find("State:\tS") != std::string::npos;
    }

    // Waits until the command thread has served what it got and sleeps in its next read.
    bool wait_reading() {
        const std::string status = "/proc/" + std::to_string(reader()) + "/status";
        return wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]") && desk_wait_text(h, status, "State:\tS");
    }

    // The last lines, without those of the command thread: it lives until the process has ended.
    std::vector<std::string> last_lines(size_t count) {
        std::vector<std::string> lines = file_lines();
        lines.erase(
            std::remove_if(lines.begin(), lines.end(),
                           [](const std::string &line) { return line.compare(0, 23, "sa_handle_read_cmd_loop") == 0; }),
            lines.end());
        return std::vector<std::string>(lines.end() - static_cast<long>(std::min(count, lines.size())), lines.end());
    }

    desk_child agent;
};

// The file lines of a teardown that ends the process, all of them and in a row.
static std::vector<std::string> end_lines(const std::string &signal_text, const std::string &closed = "0") {
    return {"signal_treatment ", "signal_treatment signal[" + signal_text + "]",
            "sa_handle_deinit exit ret_val[" + closed + "]", "sa_deinit_resource exit ret_val[" + closed + "]",
            "signal_treatment exit"};
}

// ---- signals that end the agent

struct ending {
    int signo;
    const char *text;
};

static void PrintTo(const ending &one, std::ostream *out) {
    *out << one.text;
}

class EndingSignal : public Signals, public ::testing::WithParamInterface<ending> {
  protected:
    void SetUp() override {
        sends_crashes = GetParam().signo == SIGSEGV || GetParam().signo == SIGBUS;
    }
};

TEST_P(EndingSignal, TearsDownAndExitsWithZero) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(desk_kill(h, agent.pid, GetParam().signo));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(last_lines(5), end_lines(GetParam().text));
    EXPECT_EQ(crash_of(h), sends_crashes ? "signal[" + std::string(GetParam().text) + "]" : "");
    EXPECT_FALSE(desk_exists(h, kLink));
    settle();
    EXPECT_TRUE(in_order(
        process_lines(agent.pid),
        {"signal_treatment()", "signal_treatment receive signal[" + std::string(GetParam().text) + "]",
         "sa_deinit_resource()", "sa_handle_deinit()", "pub_pty_close()", "pub_pty_delete_mapping()",
         "pub_pty_delete_mapping unlink(/dev/ttyCMD0) ret_val[0]", "pub_pty_close pub_pty_delete_mapping ret_val[0]",
         "sa_deinit_resource exit", "signal_treatment exit"}));
}

TEST_P(EndingSignal, LeavesTheCollectorsAlone) {
    ASSERT_NO_FATAL_FAILURE(start(true));
    const std::vector<pid_t> collectors = desk_pids(h, "logcat");
    ASSERT_EQ(collectors.size(), 2u);
    ASSERT_TRUE(desk_kill(h, agent.pid, GetParam().signo));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(desk_pids(h, "logcat"), collectors);
    EXPECT_EQ(desk_file_text(h, kSaLog).find("sa_kill_all_child_service_ex"), std::string::npos);
}

// A configuration file that does not come to its end: a pipe that nobody writes to, or that somebody keeps open.
TEST_P(EndingSignal, EndsTheAgentWhileItReadsItsConfiguration) {
    static const char kConfig[] = "/system/etc/zr-qel-sa.cfg";
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_TRUE(put_pipe(h, kConfig));
    for (const bool is_held_open : {false, true}) {
        SCOPED_TRACE(is_held_open ? "somebody keeps it open" : "nobody writes to it");
        const int writer = is_held_open ? desk_open(h, kConfig, O_RDWR | O_CLOEXEC) : -1;
        agent = launch();
        ASSERT_TRUE(desk_until([&] { return is_asleep_in_start() || wait_listening(agent.pid, 0); }));
        ASSERT_TRUE(desk_kill(h, agent.pid, GetParam().signo));
        const int status = desk_wait(h, &agent, 10000);
        close(writer);
        ASSERT_EQ(status, 0);
        EXPECT_EQ(last_lines(5).back(), "signal_treatment exit");
    }
}

static std::string name_of(const ::testing::TestParamInfo<ending> &one) {
    return strchr(one.param.text, '-') + 1;
}

INSTANTIATE_TEST_SUITE_P(All, EndingSignal,
                         ::testing::Values(ending{SIGTERM, "15-SIGTERM"}, ending{SIGINT, "2-SIGINT"},
                                           ending{SIGSEGV, "11-SIGSEGV"}, ending{SIGBUS, "7-SIGBUS"}),
                         name_of);

TEST_F(Signals, MayMeetTheCommandThread) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(threads(agent.pid), 2);
    ASSERT_TRUE(desk_kill(h, reader(), SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(last_lines(5), end_lines("15-SIGTERM"));
    EXPECT_FALSE(desk_exists(h, kLink));
    settle();
    const pid_t pid = agent.pid;
    const std::vector<desk_log_entry> log = desk_log(h, "zr-qel-sa");
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [&](const desk_log_entry &entry) {
        return entry.pid == pid && entry.tid != pid && entry.text == "signal_treatment exit";
    }));
}

TEST_F(Signals, EndTheAgentInTheMiddleOfACommand) {
    ASSERT_NO_FATAL_FAILURE(start());
    send("SA+SYSTEM=\"touch /data/started; sleep 100\"\r");
    ASSERT_TRUE(desk_wait_path(h, "/data/started"));
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(last_lines(5), end_lines("15-SIGTERM"));
    EXPECT_FALSE(desk_exists(h, kLink));
}

TEST_F(Signals, ServiceIsStartedAgainByInitAndTheChannelComesBack) {
    desk_options options = quiet_options();
    options.restart_ms = 100;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const pid_t first = desk_agent_pid(h);
    ASSERT_TRUE(desk_kill(h, first, SIGTERM));
    pid_t second = first;
    ASSERT_TRUE(desk_until([&] {
        second = desk_agent_pid(h);
        return second > 0 && second != first;
    }));
    ASSERT_TRUE(wait_listening(second));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
    const std::vector<desk_event> exits = desk_events(h, "exit");
    EXPECT_TRUE(std::any_of(exits.begin(), exits.end(), [&](const desk_event &event) {
        return event.fields == std::vector<std::string>{"zr-qel-sa", std::to_string(first), "0"};
    }));
}

// From the moment the handlers are there a signal tears down whatever has been built up so far.
TEST_F(Signals, MayComeAtAnyMomentOfTheStart) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    agent = launch();
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_listener_loop fd["));
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
    const std::vector<std::string> whole = file_lines();
    const auto configured = std::find(whole.begin(), whole.end(), "main sa_cfg_init ret_val[0]");
    ASSERT_NE(configured, whole.end());
    const auto first = static_cast<size_t>(configured - whole.begin()) + 1;
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    ASSERT_EQ(desk_wait(h, &agent, 10000), 0);
    for (size_t count = first; count <= whole.size(); count++) {
        SCOPED_TRACE("signal behind line " + std::to_string(count) + ": " + whole[count - 1]);
        ASSERT_TRUE(desk_remove(h, kSaLog));
        // A child that has not become its program yet still bears the agent's name.
        ASSERT_TRUE(desk_until([&] { return desk_pids(h, "zr-qel-sa").empty(); }));
        desk_child young = launch();
        ASSERT_TRUE(desk_until([&] { return file_lines().size() >= count; }));
        ASSERT_TRUE(desk_kill(h, young.pid, SIGTERM));
        ASSERT_EQ(desk_wait(h, &young, 10000), 0);
        // A channel that was not open yet is not closed.
        const std::vector<std::string> lines = file_lines();
        const bool was_open = count_lines(lines, "sa_handle_deinit exit ret_val[0]") == 1;
        EXPECT_TRUE(in_order(lines, end_lines("15-SIGTERM", was_open ? "0" : "-1")));
        EXPECT_TRUE(was_open || count_lines(lines, "sa_handle_read_cmd_loop read_len") == 0);
        EXPECT_FALSE(desk_exists(h, kLink));
    }
}

// ---- the reset signal

TEST_F(Signals, ResetStopsTheServiceAndItsCollectors) {
    desk_options options;
    options.properties = {{"persist.sys.install.zr.log", kCollectors}};
    options.restart_ms = 100;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const pid_t pid = desk_agent_pid(h);
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_EQ(desk_pids(h, "logcat").size(), 2u);
    ASSERT_TRUE(desk_kill(h, pid, SIGUSR2));
    EXPECT_TRUE(desk_wait_service(h, "zr-qel-sa", "stopped"));
    EXPECT_TRUE(desk_wait_gone(h, pid));
    EXPECT_TRUE(desk_until([&] { return desk_pids(h, "logcat").empty(); })) << "killed, and gone in their own time";
    EXPECT_FALSE(desk_exists(h, kLink));
    EXPECT_TRUE(in_order(file_lines(), {"signal_treatment ", "signal_treatment signal[12-SIGUSR2]",
                                        "sa_handle_deinit exit ret_val[0]", "sa_deinit_resource exit ret_val[0]",
                                        "sa_kill_all_child_service_ex log_type[I1], svc_pid[0], mthread_id[0]",
                                        "sa_kill_all_child_service_ex log_type[I2], svc_pid[0], mthread_id[0]"}));
    EXPECT_EQ(count_lines(file_lines(), "signal_treatment exit"), 0);
    settle();
    EXPECT_TRUE(in_order(platform_lines(), {"signal_treatment receive signal[12-SIGUSR2]", "sa_deinit_resource exit",
                                            "ready to kill all child service", "sa_kill_all_child_service_ex()"}));
}

// An agent that is no service of init lives on after its request to be stopped, and shows the handler to its end.
TEST_F(Signals, ResetKillsCollectorsAndReturns) {
    ASSERT_NO_FATAL_FAILURE(start(true));
    const std::vector<pid_t> logcats = desk_pids(h, "logcat");
    ASSERT_EQ(logcats.size(), 2u);
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGUSR2));
    ASSERT_TRUE(wait_file_line("signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit"));
    for (const pid_t pid : logcats) {
        EXPECT_TRUE(desk_wait_gone(h, pid));
        EXPECT_TRUE(wait_file_line("subproc_waiter_service pid[" + std::to_string(pid) + "] killed by signal[9]"));
        EXPECT_EQ(count_lines(file_lines(),
                              "sa_kill_all_child_service_ex LOGCAT kill[" + std::to_string(pid) + "] ret_val[0]"),
                  1);
    }
    EXPECT_EQ(desk_service_state(h, "zr-qel-sa"), "stopped");
    EXPECT_EQ(count_lines(file_lines(), "signal_treatment exit"), 0);
    EXPECT_FALSE(desk_exists(h, kLink));
    EXPECT_EQ(desk_arguments(h, agent.pid), std::vector<std::string>{"/system/bin/zr-qel-sa"});
}

TEST_F(Signals, SecondResetFindsTheChannelClosed) {
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string last = "signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit";
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGUSR2));
    ASSERT_TRUE(wait_file_line(last));
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGUSR2));
    ASSERT_TRUE(desk_until([&] { return count_lines(file_lines(), last) == 2; }));
    std::vector<std::string> expected = {"signal_treatment ", "signal_treatment signal[12-SIGUSR2]",
                                         "sa_handle_deinit exit ret_val[-1]", "sa_deinit_resource exit ret_val[-1]"};
    for (int type = 1; type <= 6; type++) {
        expected.push_back("sa_kill_all_child_service_ex log_type[I" + std::to_string(type) +
                           "], svc_pid[0], mthread_id[0]");
    }
    expected.push_back(last);
    EXPECT_EQ(last_lines(expected.size()), expected);
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
}

TEST_F(Signals, ResetLeavesTheChannelClosed) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGUSR2));
    ASSERT_TRUE(wait_file_line("signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit"));
    hang_up();
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-1]"));
    EXPECT_FALSE(desk_exists(h, kLink));
    EXPECT_EQ(threads(agent.pid), 1);
}

TEST_F(Signals, ResetThatInitRefusesLetsTheChannelComeBack) {
    desk_options options = quiet_options();
    options.absent = {"/system/etc/init/zr-qel-sa.rc"};
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    agent = launch();
    ASSERT_TRUE(wait_listening(agent.pid));
    open_channel();
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_reading());  // a read that begins behind the teardown fails, and ends the thread
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGUSR2));
    ASSERT_TRUE(wait_file_line("signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit"));
    hang_up();
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Signals, EndMayInterruptAReset) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent(true));
    for (int round = 0; round < 5; round++) {
        ASSERT_TRUE(desk_until([&] { return desk_pids(h, "zr-qel-sa").empty(); }));
        agent = launch();
        ASSERT_TRUE(wait_listening(agent.pid));
        ASSERT_TRUE(desk_kill(h, agent.pid, SIGUSR2));
        ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
        ASSERT_EQ(desk_wait(h, &agent, 10000), 0) << round;
        EXPECT_EQ(count_lines(file_lines(), "signal_treatment exit"), 1);
    }
}

// ---- the signal that stops threads

TEST_F(Signals, StopOfTheCommandThreadEndsItAlone) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(threads(agent.pid), 2);
    ASSERT_TRUE(desk_kill(h, reader(), SIGUSR1));
    ASSERT_TRUE(desk_until([&] { return threads(agent.pid) == 1; }));
    settle();
    const std::vector<std::string> lines = platform_lines("zr-qel-pub");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "pub_util_handle_thread_signal()");
    EXPECT_EQ(lines.back(), "thread " + std::to_string(static_cast<int>(command_thread_id())) + " will be end")
        << "the id of the creation, as an int";
    EXPECT_TRUE(desk_exists(h, kLink));  // it has no time to close what it owns
    send("AT\r");
    EXPECT_EQ(receive(200), "");
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_FALSE(desk_exists(h, kLink));
}
