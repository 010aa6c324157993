// An agent started with descriptor 0 closed: the channel's master can become descriptor 0, and then requests are not
// answered. Each request stays in the buffer, and the next one is appended.
#include <signal.h>

#include "tests/support/agent.h"

class ClosedInput : public AgentTest {
  protected:
    // Brings the agent up so that nothing but the channel's master takes descriptor 0: without a log directory no line
    // opens a file, and no socket can be made for the platform log until the tracing program is gone.
    bool try_master_at_zero() {
        desk_program program;
        program.argv = {"/usr/bin/strace",
                        "-f",
                        "-o",
                        "/dev/null",
                        "-e",
                        "trace=socket",
                        "-e",
                        "inject=socket:error=EMFILE",
                        "/system/bin/sh",
                        "-c",
                        "exec 0<&-; exec /system/bin/zr-qel-sa"};
        desk_child tracer;
        EXPECT_TRUE(desk_start(h, program, &tracer)) << desk_error();
        const std::string process = "/proc/" + std::to_string(tracer.pid);
        EXPECT_TRUE(desk_until([&] {  // an agent whose listener comes first ends, and its tracer with it
            return (desk_exists(h, "/dev/ttysa1") && desk_exists(h, "/dev/ttyCMD0")) || !desk_exists(h, process);
        }));
        desk_kill(h, tracer.pid, SIGKILL);  // lets go of the agent
        desk_wait(h, &tracer, 10000);
        const std::vector<pid_t> pids = desk_pids(h, "zr-qel-sa");
        if (pids.size() != 1) {
            return false;
        }
        pid = pids[0];
        if (desk_link_target(h, "/proc/" + std::to_string(pid) + "/fd/0") == "/dev/ptmx") {
            return true;
        }
        desk_kill(h, pid, SIGKILL);
        desk_wait_gone(h, pid);
        desk_remove(h, "/dev/ttysa1");
        desk_remove(h, "/dev/ttyCMD0");
        return false;
    }

    void boot_with_master_at_zero() {
        desk_options options;
        options.agent = false;
        options.log_dir = false;
        options.properties.push_back(
            {"persist.sys.install.zr.log", "/data/logs,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0"});
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        bool is_at_zero = false;
        for (int tries = 0; tries < 10 && !is_at_zero; tries++) {  // the listener's master may be first
            is_at_zero = try_master_at_zero();
        }
        ASSERT_TRUE(is_at_zero);
        ASSERT_TRUE(desk_make_dir(h, "/data/local/log"));  // from here on there are lines to look at
        open_channel();
    }

    void send_and_wait(const std::string &bytes, const std::string &line) {
        send(bytes);
        ASSERT_TRUE(wait_file_line(line)) << line;
    }

    pid_t pid = -1;
};

TEST_F(ClosedInput, ServiceStartedByInitWorks) {
    desk_options options = quiet_options();
    options.closed_stdin = true;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(ClosedInput, RequestsStayUnansweredAndAddUp) {
    ASSERT_NO_FATAL_FAILURE(boot_with_master_at_zero());
    ASSERT_NO_FATAL_FAILURE(send_and_wait("AT\r", "sa_handle_read_cmd_loop req[AT\r] ret_val[-101]"));
    ASSERT_NO_FATAL_FAILURE(send_and_wait("at\r", "sa_handle_read_cmd_loop req[AT\rat\r] ret_val[-101]"));
    ASSERT_NO_FATAL_FAILURE(
        send_and_wait("SA+KERNEL_LOG?\r", "sa_handle_read_cmd_loop req[AT\rat\rSA+KERNEL_LOG?\r] ret_val[-101]"));
    EXPECT_EQ(receive(200), "");
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "1, 0, 0, 0"), 0u);
    EXPECT_TRUE(in_order(platform_lines(),
                         {"receive <== AT\r", "handle_sa_cmd_req()", "1, 0, 0, 0",
                          "sa_handle_read_cmd_loop handle_sa_cmd_req(AT\r) ret_val[-101]", "receive <== AT\rat\r"}));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req req[AT\r]"), 0);
}

TEST_F(ClosedInput, AFullRequestSpinsUntilTheClientGoes) {
    ASSERT_NO_FATAL_FAILURE(boot_with_master_at_zero());
    const std::string first(100, 'a');
    const std::string second(99, 'b');
    ASSERT_NO_FATAL_FAILURE(send_and_wait(first, "sa_handle_read_cmd_loop req[" + first + "] ret_val[-101]"));
    ASSERT_NO_FATAL_FAILURE(send_and_wait(second, "sa_handle_read_cmd_loop req[" + first + second + "] ret_val[-101]"));
    ASSERT_TRUE(desk_until([&] {  // without a pause, and without an end of its own
        return count_lines(file_lines(), "sa_handle_read_cmd_loop read empty") > 20;
    }));
    hang_up();
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop reopen m_ptm_fd["));
    EXPECT_TRUE(in_order(file_lines(), {"sa_handle_read_cmd_loop read_len[0]", "sa_handle_read_cmd_loop read empty",
                                        "sa_handle_read_cmd_loop read errno[5-Input/output error]",
                                        "sa_handle_read_cmd_loop EIO pub_pty_close ret_val[0]"}));
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "read empty data"), 0u);
    EXPECT_TRUE(in_order(platform_lines(), {"sa_handle_read_cmd_loop read_len[0]", "WARNING !", "read empty data",
                                            "sa_handle_read_cmd_loop read empty"}));
    // What had accumulated is gone. The new master has another number, or descriptor 0 again.
    open_channel();
    send("new\r");
    EXPECT_TRUE(desk_until([&] {
        return count_lines(file_lines(), "sa_handle_read_cmd_loop req[new\r] ret_val[-101]") +
                   count_lines(file_lines(), "sa_handle_read_cmd_loop req[new\r] ret_val[0]") ==
               1;
    }));
}
