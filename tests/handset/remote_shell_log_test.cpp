// The log lines of the remote shell: all lines of a served request in both logs, of its child and of its waiter.
#include <signal.h>
#include <unistd.h>

#include "tests/support/remote_shell.h"

typedef std::vector<std::string> lines;

class RemoteShellLog : public RemoteShellTest {
  protected:
    // Lines of the platform log that one thread wrote, from the first that begins with `start` on.
    lines thread_lines(pid_t tid, const std::string &start) {
        lines found;
        for (const desk_log_entry &entry : desk_log(h, "zr-qel-sa")) {
            if (entry.tid == tid && (!found.empty() || entry.text.compare(0, start.size(), start) == 0)) {
                found.push_back(entry.text);
            }
        }
        return found;
    }
    // The thread that wrote a line.
    pid_t writer_of(const std::string &text) {
        for (const desk_log_entry &entry : desk_log(h, "zr-qel-sa")) {
            if (entry.text == text) {
                return entry.tid;
            }
        }
        return -1;
    }
    // The number in brackets behind `start` in the first line of the file that begins with it.
    std::string number_behind(const std::string &start) {
        for (const std::string &line : file_lines()) {
            if (line.compare(0, start.size(), start) == 0) {
                return line.substr(start.size(), line.find(']', start.size()) - start.size());
            }
        }
        return "none";
    }
    // Serves one command and knows the numbers that its lines show.
    void serve(const std::string &command) {
        std::string name;
        const int fd = connect("shell:" + command, &name);
        read_to_end(fd);
        close(fd);
        slave = name;
        ASSERT_TRUE(wait_reaped(last_child()));
        ASSERT_NO_FATAL_FAILURE(settle());
        listener_number = listener_fd();
        connection = number_behind("open_ptm_connection fd[");
        child = std::to_string(last_child());
    }

    std::string slave;
    std::string listener_number;
    std::string connection;
    std::string child;
};

TEST_F(RemoteShellLog, OfAServedRequestInThePlatformLog) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(serve("echo hi"));
    EXPECT_NE(listener_number, connection);
    EXPECT_EQ(
        thread_lines(agent, "sa_listener_loop size["),
        (lines{
            "sa_listener_loop size[13] service[shell:echo hi]",
            "sa_listener_loop service[shell:echo hi]",
            "open_ptm_connection()",
            "open_ptm_connection fd1[" + listener_number + "]",
            "open_ptm()",
            "open_ptm symname[]",
            "open_ptm ptm[" + connection + "]",
            "open_ptm devname[" + slave + "]",
            "open_ptm symname[" + slave + "]",
            "set_ptm_attr()",
            "open_ptm_connection fd[" + connection + "]",
            "open_ptm_connection write size[" + std::to_string(slave.size()) + "]",
            "open_ptm_connection read size[2]",
            "sa_listener_loop fd_pair[" + listener_number + "]",
            "handle_service()",
            "handle_service fd[" + connection + "] name[shell:echo hi]",
            "create_subproc_thread fd[" + connection + "] name[echo hi]",
            "create_subprocess()",
            "create_subprocess fd[" + connection + "] cmd[/system/bin/sh] arg0[-c] arg1[echo hi] pid[" + child + "]",
            "create_subproc_thread ret_fd[" + connection + "] pid[" + child + "]",
            "thread_create()",
            "handle_service ret[" + connection + "]",
        }));
}

TEST_F(RemoteShellLog, OfAServedRequestInTheFile) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(serve("echo hi"));
    EXPECT_TRUE(in_order(
        file_lines(),
        {
            "sa_listener_loop ",
            "open_ptm symname[/dev/ttysa1]",
            "open_ptm ptm[" + listener_number + "]",
            "open_ptm ret[0]",
            "sa_listener_loop fd[" + listener_number + "]",
            "sa_listener_loop size[13] service[shell:echo hi]",
            "sa_listener_loop service[shell:echo hi]",
            "open_ptm_connection fd1[" + listener_number + "]",
            "open_ptm symname[]",
            "open_ptm ptm[" + connection + "]",
            "open_ptm devname[" + slave + "]",
            "open_ptm symname[" + slave + "]",
            "open_ptm_connection fd[" + connection + "]",
            "open_ptm_connection write size[" + std::to_string(slave.size()) + "]",
            "open_ptm_connection read size[2]",
            "sa_listener_loop fd_pair[" + connection + "]",  // the platform log shows the listener here
            "handle_service fd[" + connection + "] name[shell:echo hi]",
            "create_subproc_thread fd[" + connection + "] name[echo hi]",
            "create_subprocess fd[" + connection + "] cmd[/system/bin/sh] arg0[-c] arg1[echo hi] pid[" + child + "]",
            "create_subprocess parent process",
            "create_subproc_thread ret_fd[" + connection + "] pid[" + child + "]",
            "handle_service ret[" + connection + "]",
        }));
    EXPECT_EQ(count_lines(file_lines(), "sa_listener_loop fd_pair[" + listener_number + "]"), 0);
    EXPECT_EQ(number_behind("thread_create thd[0] pthread[").find_first_not_of("0123456789"), std::string::npos);
}

TEST_F(RemoteShellLog, OfTheChild) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(serve("echo hi"));
    lines found = process_lines(last_child());
    ASSERT_EQ(found.size(), 3u) << "lines of the child alone";
    EXPECT_EQ(found[0], "create_subprocess fd[" + connection + "] cmd[/system/bin/sh] arg0[-c] arg1[echo hi] pid[0]");
    EXPECT_EQ(found[1], "create_subprocess text[/proc/" + child + "/oom_adj]");
    EXPECT_EQ(found[2].compare(0, 23, "create_subprocess fdoo["), 0) << found[2];
    EXPECT_NE(found[2], "create_subprocess fdoo[-1]");
    EXPECT_EQ(count_lines(file_lines(), found[0]), 1);
    EXPECT_EQ(count_lines(file_lines(), found[1]), 1);
    EXPECT_EQ(count_lines(file_lines(), found[2]), 1);
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess child process pid[" + child + "]"), 1);
}

TEST_F(RemoteShellLog, OfTheWaiter) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(serve("exit 3"));
    const std::string both = "fd[" + connection + "] pid[" + child + "]";
    EXPECT_EQ(thread_lines(writer_of(both), ""), (lines{
                                                     "service_bootstrap_func()",
                                                     both,
                                                     "subproc_waiter_service " + both,
                                                     "subproc_waiter_service status[768] p[" + child + "]",
                                                     "subproc_waiter_service " + both,
                                                     "subproc_waiter_service Exit code[3]",
                                                     "subproc_waiter_service shell exited " + both + " errno[0]",
                                                 }));
    EXPECT_TRUE(in_order(file_lines(),
                         {"subproc_waiter_service " + both, "subproc_waiter_service p[" + child + "] status[768]",
                          "subproc_waiter_service " + both, "subproc_waiter_service pid[" + child + "] exit code[3]",
                          "subproc_waiter_service pid[" + child + "] exit errno[0-Success]"}));
    EXPECT_EQ(count_lines(file_lines(), both), 0) << "the platform log's alone";
}

TEST_F(RemoteShellLog, OfAChildEndedByASignal) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(serve("kill -9 $$"));
    EXPECT_EQ(count_lines(platform_lines(), "subproc_waiter_service Killed by signal[9]"), 1);
    EXPECT_EQ(count_lines(platform_lines(), "subproc_waiter_service status[9] p[" + child + "]"), 1);
    EXPECT_EQ(count_lines(file_lines(), "subproc_waiter_service pid[" + child + "] killed by signal[9]"), 1);
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteShellLog, OfAnInteractiveShellShowsThatThereIsNoCommand) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:");
    read_until(fd, "# ");
    write_all(fd, "exit\n");
    read_to_end(fd);
    close(fd);
    const std::string number = number_behind("open_ptm_connection fd[");
    EXPECT_TRUE(in_order(file_lines(),
                         {"sa_listener_loop size[6] service[shell:]", "handle_service fd[" + number + "] name[shell:]",
                          "create_subproc_thread fd[" + number + "] name[(null)]",
                          "create_subprocess fd[" + number + "] cmd[/system/bin/sh] arg0[-] arg1[(null)] pid[" +
                              std::to_string(last_child()) + "]"}));
}

// The first line of a read shows the buffer as it stands, with the end of the longer request before.
TEST_F(RemoteShellLog, OfAShorterRequestBehindALongerOne) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(serve("echo a longer command"));
    ASSERT_NO_FATAL_FAILURE(serve("echo b"));
    ASSERT_NO_FATAL_FAILURE(leave_listener());
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(in_order(platform_lines(), {"sa_listener_loop size[27] service[shell:echo a longer command]",
                                            "sa_listener_loop service[shell:echo a longer command]",
                                            "sa_listener_loop size[12] service[shell:echo b longer command]",
                                            "sa_listener_loop service[shell:echo b]",
                                            "sa_listener_loop size[-1] service[shell:echo b]"}));
}

TEST_F(RemoteShellLog, OfAClientThatLeaves) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string first = listener_fd();
    const std::string slave_before = desk_link_target(h, "/dev/ttysa1");
    ASSERT_NO_FATAL_FAILURE(leave_listener());
    ASSERT_NO_FATAL_FAILURE(settle());
    const std::string second = listener_fd();
    const std::string slave_now = desk_link_target(h, "/dev/ttysa1");
    EXPECT_EQ(thread_lines(agent, "sa_listener_loop size["), (lines{
                                                                 "sa_listener_loop size[-1] service[]",
                                                                 "close_ptm()",
                                                                 "close_ptm fd[" + first + "] symname[/dev/ttysa1]",
                                                                 "open_ptm()",
                                                                 "open_ptm symname[/dev/ttysa1]",
                                                                 "open_ptm ptm[" + second + "]",
                                                                 "open_ptm devname[" + slave_now + "]",
                                                                 "open_ptm ret[0]",
                                                                 "set_ptm_attr()",
                                                                 "sa_listener_loop reopen fd[" + second + "]",
                                                             }));
    EXPECT_TRUE(in_order(file_lines(),
                         {"sa_listener_loop size[-1] service[]", "close_ptm fd[" + first + "] symname[/dev/ttysa1]",
                          "sa_listener_loop reopen fd[" + second + "]"}));
}
