// The remote shell as its client sees it: commands, an interactive shell, refusals, the kill request.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/remote_shell.h"

class RemoteShell : public RemoteShellTest {};

// ---- a command ----

TEST_F(RemoteShell, RunsACommandAndDeliversItsOutput) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    EXPECT_EQ(run_remote("echo out; echo err >&2; id -u"), "out\nerr\n0\n") << "no echo, no carriage returns";
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteShell, GivesACommandItsInput) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:read one; read two; echo \"<$two$one>\"");
    write_all(fd, "first\nsecond\n");
    EXPECT_EQ(read_to_end(fd), "<secondfirst>\n");
    close(fd);
}

TEST_F(RemoteShell, PassesEveryByteUnchangedInBothDirections) {
    std::string bytes;
    for (int value = 0; value < 256; value++) {
        bytes += static_cast<char>(value);
    }
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:cat");
    for (int round = 0; round < 3; round++) {
        write_all(fd, bytes);
        std::string back;
        while (back.size() < bytes.size()) {
            char byte;
            ASSERT_EQ(read(fd, &byte, 1), 1);
            back += byte;
        }
        EXPECT_EQ(back, bytes);
    }
    close(fd);
    EXPECT_TRUE(holds_nothing_more()) << "cat ends when its client has gone";
}

TEST_F(RemoteShell, TakesEverythingBehindThePrefixAsTheCommand) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    EXPECT_EQ(run_remote("tr '\\0' '|' </proc/$$/cmdline"), "/system/bin/sh|-c|tr '\\0' '|' </proc/$$/cmdline|");
    EXPECT_EQ(run_remote("echo a\necho b\n"), "a\nb\n");
    EXPECT_EQ(run_remote(" echo c"), "c\n");
    EXPECT_EQ(run_remote("echo shell:host:kill"), "shell:host:kill\n");
}

TEST_F(RemoteShell, ServesTheCommandChannelAtTheSameTime) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:cat");
    EXPECT_EQ(ask("AT\r"), kOk);
    const std::string path = request("shell:cat");  // its acknowledgement is still to come
    EXPECT_EQ(ask("AT\r"), kOk);
    acknowledge();
    close(fd);
}

// ---- an interactive shell ----

static void resize(int fd, unsigned short rows, unsigned short columns) {
    const struct winsize size = {rows, columns, 0, 0};
    EXPECT_EQ(ioctl(fd, TIOCSWINSZ, &size), 0);
}

TEST_F(RemoteShell, WithoutACommandIsInteractive) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:");
    read_until(fd, "# ");
    write_all(fd, "echo $((6*7))x\n");
    EXPECT_NE(read_until(fd, "# ").find("42x"), std::string::npos);
    write_all(fd, "cd /data; pwd\n");
    EXPECT_NE(read_until(fd, "# ").find("/data"), std::string::npos);
    write_all(fd, "exit 3\n");
    read_to_end(fd);
    EXPECT_TRUE(wait_file_line("subproc_waiter_service pid[" + std::to_string(last_child()) + "] exit code[3]"));
    close(fd);
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteShell, SeesTheClientsWindow) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:while read line; do stty size; done");
    resize(fd, 24, 80);
    write_all(fd, "\n");
    EXPECT_EQ(read_until(fd, "\n"), "24 80\n");
    resize(fd, 50, 132);
    write_all(fd, "\n");
    EXPECT_EQ(read_until(fd, "\n"), "50 132\n") << "after a resize";
    close(fd);
}

TEST_F(RemoteShell, EndsAtTheEndOfItsInput) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:");
    read_until(fd, "# ");
    write_all(fd, "\x04");
    read_to_end(fd);
    EXPECT_TRUE(wait_file_line("subproc_waiter_service pid[" + std::to_string(last_child()) + "] exit code[0]"));
    close(fd);
}

TEST_F(RemoteShell, EndsWhenItsClientHasGone) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:");
    read_until(fd, "# ");
    const pid_t shell = last_child();
    close(fd);
    EXPECT_TRUE(desk_wait_gone(h, shell));
    EXPECT_TRUE(wait_reaped(shell));
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteShell, OutlivesItsClientOnTheListener) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:cat");
    write_all(fd, "one");
    EXPECT_EQ(read_until(fd, "one"), "one");
    ASSERT_NO_FATAL_FAILURE(leave_listener());
    write_all(fd, "two");
    EXPECT_EQ(read_until(fd, "two"), "two");
    ASSERT_NO_FATAL_FAILURE(open_listener());
    EXPECT_EQ(run_remote("echo other"), "other\n");
    close(fd);
    EXPECT_TRUE(holds_nothing_more());
}

// ---- refusals ----

TEST_F(RemoteShell, RefusesAnyOtherRequestAfterAnnouncingAConnection) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (const std::string bytes :
         {"hello", "shell", "Shell:id", " shell:id", "host:kil", "host:kill ", "host:kill\n"}) {
        const std::string path = request(bytes);
        EXPECT_EQ(path.compare(0, 9, "/dev/pts/"), 0) << bytes;
        const int fd = desk_open_tty(h, path);
        ASSERT_GE(fd, 0) << "announced and still open: " << path;
        acknowledge();
        EXPECT_EQ(read_to_end(fd), "") << bytes;
        close(fd);
        EXPECT_TRUE(desk_wait_path(h, path, false)) << bytes;
    }
    EXPECT_EQ(last_child(), -1) << "no child was started";
    EXPECT_EQ(desk_agent_pid(h), agent);
    EXPECT_EQ(run_remote("echo next"), "next\n") << "and the listener goes on";
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteShell, RefusalIsLogged) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string fd = listener_fd();
    const std::string path = request("host:kill\n");
    acknowledge();
    ASSERT_TRUE(desk_wait_path(h, path, false));
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(in_order(platform_lines(), {"sa_listener_loop service[host:kill\n]", "open_ptm_connection()",
                                            "open_ptm_connection write size[" + std::to_string(path.size()) + "]",
                                            "open_ptm_connection read size[2]", "sa_listener_loop fd_pair[" + fd + "]",
                                            "handle_service()", "handle_service ret[-1]"}));
}

// ---- lengths ----

// What the agent has read as requests and as acknowledgements, in order.
static std::vector<std::string> reads(const std::vector<std::string> &lines) {
    std::vector<std::string> found;
    for (const std::string &line : lines) {
        for (const std::string &start :
             {std::string("sa_listener_loop size["), std::string("open_ptm_connection read size[")}) {
            if (line.compare(0, start.size(), start) == 0) {
                found.push_back(line.substr(0, line.find(']') + 1));
            }
        }
    }
    return found;
}

TEST_F(RemoteShell, TakesARequestOf1023Bytes) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string start = "shell:echo ";
    const std::string word(1023 - start.size(), 'w');
    const int fd = connect(start + word);
    EXPECT_EQ(read_to_end(fd), word + "\n");
    close(fd);
    EXPECT_EQ(reads(platform_lines()),
              (std::vector<std::string>{"sa_listener_loop size[1023]", "open_ptm_connection read size[2]"}));
}

TEST_F(RemoteShell, TakesTheRestOfALongerRequestForTheAcknowledgement) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string start = "shell:echo ";
    const std::string word(1023 - start.size(), 'w');
    const int fd = desk_open_tty(h, request(start + word + "X"));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_to_end(fd), word + "\n");
    close(fd);
    EXPECT_EQ(reads(platform_lines()),
              (std::vector<std::string>{"sa_listener_loop size[1023]", "open_ptm_connection read size[1]"}));
}

TEST_F(RemoteShell, Reads1500BytesInTwoParts) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string start = "shell:echo ";
    const std::string word(1023 - start.size(), 'w');
    const std::string path = request(start + word + std::string(477, 'r'));
    const int fd = desk_open_tty(h, path);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_to_end(fd), word + "\n");
    close(fd);
    EXPECT_EQ(reads(platform_lines()),
              (std::vector<std::string>{"sa_listener_loop size[1023]", "open_ptm_connection read size[477]"}));
    EXPECT_EQ(run_remote("echo next"), "next\n");
}

TEST_F(RemoteShell, ConsumesAnAcknowledgementOf512BytesAndNoMore) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = desk_open_tty(h, request("shell:echo one"));
    acknowledge(std::string(512, 'a') + "shell:echo two");
    EXPECT_EQ(read_to_end(fd), "one\n");
    close(fd);
    char path[64] = "";
    ASSERT_GT(read(listener, path, sizeof(path) - 1), 0) << "what was behind is a request of its own";
    const int second = desk_open_tty(h, path);
    acknowledge();
    EXPECT_EQ(read_to_end(second), "two\n");
    close(second);
}

// ---- the kill request ----

class RemoteKill : public RemoteShellTest {
  protected:
    // An agent that init does not start again.
    void come_up_alone() {
        desk_options options = quiet_options();
        options.agent = false;
        boot_only(options);
        if (HasFatalFailure()) {
            return;
        }
        child = launch();
        agent = child.pid;
        ASSERT_TRUE(wait_listening(agent));
        open_listener();
    }
    desk_child child;
};

TEST_F(RemoteKill, EndsTheAgentAtOnceAndLeavesItsNamesBehind) {
    ASSERT_NO_FATAL_FAILURE(come_up_alone());
    ASSERT_TRUE(desk_wait_path(h, "/dev/ttyCMD0"));
    const std::string channel_target = desk_link_target(h, "/dev/ttyCMD0");
    write_all(listener, "host:kill");
    EXPECT_EQ(desk_wait(h, &child, 10000), 0);
    EXPECT_EQ(desk_link_target(h, "/dev/ttysa1").compare(0, 9, "/dev/pts/"), 0);
    EXPECT_EQ(desk_link_target(h, "/dev/ttyCMD0"), channel_target);
    ASSERT_NO_FATAL_FAILURE(settle());
    const std::vector<std::string> lines = process_lines(agent);
    EXPECT_EQ(lines.back(), "sa_listener_loop exit(0)");
    EXPECT_EQ(count_lines(lines, "sa_deinit_resource()"), 0) << "no teardown";
    EXPECT_EQ(file_lines().back(), "sa_listener_loop host:kill exit");
}

TEST_F(RemoteKill, LeavesNamesThatTheNextStartReplaces) {
    ASSERT_NO_FATAL_FAILURE(come_up_alone());
    write_all(listener, "host:kill");
    ASSERT_EQ(desk_wait(h, &child, 10000), 0);
    desk_child next = launch();
    ASSERT_TRUE(wait_listening(next.pid));
    ASSERT_NO_FATAL_FAILURE(open_listener());
    EXPECT_EQ(run_remote("echo again"), "again\n");
    ASSERT_NO_FATAL_FAILURE(open_channel());
    EXPECT_EQ(ask("AT\r"), kOk);
    desk_kill(h, next.pid, SIGTERM);
    EXPECT_EQ(desk_wait(h, &next, 10000), 0);
}

TEST_F(RemoteKill, LeavesItsShellsRunning) {
    ASSERT_NO_FATAL_FAILURE(come_up_alone());
    const int fd = connect("shell:echo up; exec sleep 1000");
    EXPECT_EQ(read_until(fd, "\n"), "up\n");
    const pid_t shell = last_child();
    write_all(listener, "host:kill");
    EXPECT_EQ(desk_wait(h, &child, 10000), 0);
    EXPECT_TRUE(desk_exists(h, "/proc/" + std::to_string(shell)));
    close(fd);
}
