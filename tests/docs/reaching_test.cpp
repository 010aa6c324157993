// Runs the relay script of docs/reaching.md in a handset, with a socket instead of a serial line.
#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/docs/pages.h"
#include "tests/support/agent.h"

static std::string relay_script() {
    std::string script;
    for (const page_lines &block : blocks_below(page("docs/reaching.md"), "Over a serial line or USB gadget")) {
        if (!block.empty() && block[0].compare(0, 2, "#!") == 0) {
            for (const std::string &line : block) {
                script += line + "\n";
            }
        }
    }
    return script;
}

class Relay : public AgentTest {
  protected:
    // Boots, and starts the relay between a socket, which takes the channel's place in this test, and the command channel.
    void start_relay() {
        const std::string script = relay_script();
        ASSERT_NE(script, "") << "docs/reaching.md shows no script";
        ASSERT_NO_FATAL_FAILURE(boot());
        hang_up();
        ASSERT_TRUE(desk_wait_text(h, kSaLog, "sa_handle_read_cmd_loop reopen m_ptm_fd["));
        ASSERT_TRUE(desk_write_file(h, "/system/bin/zr-serial-relay", script, 0755));
        int line[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, line), 0);
        desk_program program;
        program.argv = {"/system/bin/sh", "/system/bin/zr-serial-relay"};
        program.fds[0] = program.fds[1] = line[1];
        EXPECT_TRUE(desk_start(h, program, &relay)) << desk_error();
        close(line[1]);
        channel = line[0];
    }
    // Waits until the relay has read everything that was sent.
    bool wait_taken() {
        return desk_until([&] {
            int pending = -1;
            return ioctl(channel, SIOCOUTQ, &pending) == 0 && pending == 0;
        });
    }
    bool relay_ends() {
        return desk_wait(h, &relay, 30000) != -1;
    }

    desk_child relay;
};

TEST_F(Relay, PassesARequestOnAsOneWrite) {
    ASSERT_NO_FATAL_FAILURE(start_relay());
    for (const char *piece : {"AT SA+KERN", "EL_", "LOG?"}) {
        send(piece);
        ASSERT_TRUE(wait_taken());
    }
    EXPECT_EQ(ask("\r"), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(command("+QUERY_SERVICE=\"zr-qel-sa\""), "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop read_len[18]"), 1);
    hang_up();
    EXPECT_TRUE(relay_ends());
}

TEST_F(Relay, EndsWithTheAgent) {
    ASSERT_NO_FATAL_FAILURE(start_relay());
    EXPECT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(desk_kill(h, desk_agent_pid(h), SIGTERM));
    EXPECT_TRUE(relay_ends());
}
