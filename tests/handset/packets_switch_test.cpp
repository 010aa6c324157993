// +DATA_PACKETS_LOG: its arguments, that it does not affect the packet collector, and that switching off restarts the agent.
#include <signal.h>

#include "tests/support/collectors.h"

static const char kBase[] = "/data/local/log/ipdata.pcap";

class PacketsSwitch : public CollectorTest {
  protected:
    int watchers() {
        return count_lines(platform_lines(), "packets_capture_process()");
    }
    // Whether a process can be stopped and continued: one that has been killed cannot, even while it is still there.
    bool obeys(pid_t pid) {
        desk_kill(h, pid, SIGSTOP);
        const bool is_stopped = desk_until([&] { return status(pid, "State") == "T (stopped)"; });
        desk_kill(h, pid, SIGCONT);
        return is_stopped;
    }
};

TEST_F(PacketsSwitch, RefusesWhatIsNotZeroOrOne) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *argument : {"2", "-1", "x", "", "\"1\"", "256", "10"}) {
        EXPECT_EQ(command(std::string("+DATA_PACKETS_LOG=") + argument), kError) << argument;
        EXPECT_EQ(count_lines(platform_lines(), std::string("error to sscanf(\"") + argument + "\r\")"), 1) << argument;
    }
    EXPECT_EQ(rests(reports(), "FUNC-handle_sa_packets_log_set(), error_code=-118, ").size(), 7u);
    EXPECT_EQ(watchers(), 0);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=0"), kOk) << "the switch is still off";
    EXPECT_TRUE(agent_ends().empty());
}

TEST_F(PacketsSwitch, HasNeitherReadNorTestForm) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(command("+DATA_PACKETS_LOG?"), kError);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=?"), kError);
    EXPECT_EQ(rests(platform_lines(), "handle_sa_packets_log_set").size(), 0u);
}

TEST_F(PacketsSwitch, OnStartsAWatcherThatFindsNothing) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "Packets capture SIGCHLD error in waitpid: No child processes"), 0u);
    EXPECT_TRUE(in_order(platform_lines(),
                         {"handle_sa_packets_log_set()", "packets_capture_process()", "reset_real_capture()",
                          "reset_real_capture file_count[0] file_size[0]", "reset_real_capture need no ipdata",
                          "Packets capture SIGCHLD error in waitpid: No child processes"}));
    EXPECT_TRUE(
        in_order(file_lines(), {"reset_real_capture file_count[0] file_size[0]", "reset_real_capture need no ipdata"}));
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u) << "neither a child nor what is left of one";
    for (const desk_log_entry &entry : desk_log(h, "zr-qel-sa")) {
        if (entry.text == "reset_real_capture()") {
            EXPECT_TRUE(desk_wait_gone(h, entry.pid));
        }
    }
}

TEST_F(PacketsSwitch, OnTwiceForksOnce) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_EQ(command("+DATA_PACKETS_LOG = 1"), kOk);
    EXPECT_EQ(watchers(), 1);
}

TEST_F(PacketsSwitch, LeavesTheSettingsFileToTheOtherSwitches) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_FALSE(desk_exists(h, "/data/zr-qel-sa.set"));
    EXPECT_EQ(command("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/zr-qel-sa.set"), std::string("\x01 \0 \x01", 5));
}

TEST_F(PacketsSwitch, IsNotLoadedFromTheSettingsFile) {
    desk_options options = quiet_options();
    options.files.push_back({"/data/zr-qel-sa.set", std::string("\x01 \x01 \x01", 5), "", 0600, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(command("+DATA_PACKETS_LOG=0"), kOk) << "off already: nobody is killed";
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_EQ(watchers(), 1);
}

TEST_F(PacketsSwitch, LeavesTheCollectorAlone) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{2, "5,8192"}}))));
    const pid_t tcpdump = process_with(kBase);
    for (const char *request : {"+DATA_PACKETS_LOG=0", "+DATA_PACKETS_LOG=1"}) {
        EXPECT_EQ(command(request), kOk);
        EXPECT_EQ(children_of(desk_agent_pid(h)), std::vector<pid_t>{tcpdump}) << request;
        EXPECT_TRUE(obeys(tcpdump)) << request;
    }
}

// An agent that is no service: init, for its part, would clear the collector away.
TEST_F(PacketsSwitch, OffEndsTheAgentButNotTheCollector) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    desk_child agent = launch();
    ASSERT_TRUE(wait_listening(agent.pid));
    open_channel();
    const pid_t tcpdump = process_with(kBase);
    ASSERT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=0"), "");
    EXPECT_EQ(desk_wait(h, &agent, 10000), SIGKILL);
    EXPECT_TRUE(obeys(tcpdump));
    EXPECT_EQ(process_with(kBase), tcpdump);
}

// Off after on signals process 0: the agent's own process group, and so the agent. init starts it again.
TEST_F(PacketsSwitch, OffEndsTheAgentAndInitBringsItBack) {
    desk_options options = quiet_options();
    options.restart_ms = 300;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const pid_t agent = desk_agent_pid(h);
    ASSERT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=0"), "") << "no time for an answer";
    ASSERT_TRUE(desk_until([&] { return !agent_ends().empty(); }));
    EXPECT_EQ(agent_ends()[0], std::make_pair(agent, SIGKILL));
    pid_t next = -1;
    ASSERT_TRUE(desk_until([&] { return (next = desk_agent_pid(h)) > 0; }));
    ASSERT_NE(next, agent);
    ASSERT_TRUE(wait_listening(next));
    ASSERT_NO_FATAL_FAILURE(open_channel());
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=0"), kOk) << "a new agent's switch is off";
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk);
}

TEST_F(PacketsSwitch, ForkThatFailsIsAnsweredWithAnError) {
    desk_options options = quiet_options();
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "fork", EAGAIN));
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kError);
    EXPECT_EQ(count_lines(platform_lines(), "error to call fork() to create first child"), 1);
    EXPECT_EQ(rests(platform_lines(), "reset_real_capture").size(), 0u);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kOk) << "the switch is on all the same";
}
