// The remote shell and the console as a person uses them: on a terminal, which always gets back what it was.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/host/support.h"

namespace {

class OnTerminal : public HostTest {
  protected:
    void TearDown() override {
        terminal_end(&terminal);
        HostTest::TearDown();
    }
    void start(const words &arguments, int rows = 24, int columns = 80) {
        words argv = inside(arguments);
        argv.insert(argv.begin(), SA_HOST);
        terminal_start(argv, &terminal, rows, columns);
    }
    // Up to the first prompt of the remote shell.
    void start_shell(int rows = 24, int columns = 80) {
        ASSERT_NO_FATAL_FAILURE(boot_host());
        start({"shell"}, rows, columns);
        ASSERT_TRUE(terminal_expect(&terminal, "# "));
        ASSERT_FALSE(terminal_is_cooked(&terminal));
    }
    // Types a line and waits for its echo, its output and the next prompt.
    bool line(const std::string &text, const std::string &output) {
        terminal_type(&terminal, text + "\r");
        return terminal_expect(&terminal, text) && terminal_expect(&terminal, output) &&
               terminal_expect(&terminal, "# ");
    }

    host_terminal terminal;
};

TEST_F(OnTerminal, ShellSessionWithItsExitStatus) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    EXPECT_TRUE(line("echo $((20 + 3))", "23\r\n"));
    EXPECT_TRUE(line("cd /data; pwd", "/data\r\n"));
    terminal_type(&terminal, "exit 6\r");
    EXPECT_EQ(terminal_finish(&terminal), 6);
    EXPECT_TRUE(terminal_is_cooked(&terminal));
}

TEST_F(OnTerminal, CtrlDEndsTheShell) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    terminal_type(&terminal, "\4");
    EXPECT_EQ(terminal_finish(&terminal), 0);
    EXPECT_TRUE(terminal_is_cooked(&terminal));
}

TEST_F(OnTerminal, WindowSizeIsPassedOnAndChangesAreTold) {
    ASSERT_NO_FATAL_FAILURE(start_shell(31, 97));
    EXPECT_TRUE(line("busybox stty size", "31 97\r\n"));
    terminal_type(&terminal,
                  "sh -c 'trap \"busybox stty size; exit\" WINCH; echo ready; while :; do sleep 0.05; done'\r");
    EXPECT_TRUE(terminal_expect(&terminal, "\nready"));
    terminal_resize(&terminal, 44, 120);
    EXPECT_TRUE(terminal_expect(&terminal, "44 120\r\n"));
}

TEST_F(OnTerminal, CtrlCInterruptsWhatRunsAndOnlyThat) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    EXPECT_TRUE(line("sleep 3210 &", "[1]"));
    terminal_type(&terminal, "sleep 6543 | cat\r");
    ASSERT_TRUE(wait_runs({"sleep", "6543"}));
    terminal_type(&terminal, "\3");
    EXPECT_TRUE(wait_gone({"sleep", "6543"}));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    EXPECT_TRUE(runs({"sleep", "3210"}));
    terminal_type(&terminal, "half a line\3");
    EXPECT_TRUE(terminal_expect(&terminal, "^C"));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    EXPECT_TRUE(runs({"sleep", "3210"}));
    EXPECT_TRUE(line("echo alive", "alive"));
}

TEST_F(OnTerminal, CtrlCIsAByteForAProgramInRawMode) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    terminal_type(&terminal, "busybox stty -iexten; echo go; busybox hexdump -C -n 3\r");
    ASSERT_TRUE(terminal_expect(&terminal, "\ngo"));
    terminal_type(&terminal, "a\3b");
    EXPECT_TRUE(terminal_expect(&terminal, "61 03 62"));
}

TEST_F(OnTerminal, TheEscapeAlwaysGetsOut) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    EXPECT_TRUE(line("echo a~.b", "a~.b\r\n"));
    terminal_type(&terminal, "~?");
    EXPECT_TRUE(terminal_expect(&terminal, "leave the remote shell"));
    terminal_type(&terminal, "~~\r");
    EXPECT_TRUE(terminal_expect(&terminal, "~\r"));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    terminal_type(&terminal, "sleep 2109\r");
    ASSERT_TRUE(wait_runs({"sleep", "2109"}));
    terminal_type(&terminal, "~.");
    EXPECT_EQ(terminal_finish(&terminal), 255);
    EXPECT_TRUE(terminal_is_cooked(&terminal));
    EXPECT_TRUE(wait_gone({"sleep", "2109"}));
    EXPECT_TRUE(wait_gone({"/system/bin/sh", "-"}));
}

TEST_F(OnTerminal, TheTerminalIsRestoredHoweverItEnds) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    for (int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGKILL}) {
        start({"shell"});
        ASSERT_TRUE(terminal_expect(&terminal, "# "));
        ASSERT_FALSE(terminal_is_cooked(&terminal));
        kill(terminal.pid, number);
        // The terminal's last process may be gone by now, which the person's shell would keep open; so look before.
        EXPECT_TRUE(terminal_wait_cooked(&terminal)) << number;
        EXPECT_EQ(terminal_finish(&terminal), 128 + number);
        EXPECT_TRUE(wait_gone({"/system/bin/sh", "-"})) << number;
        terminal_end(&terminal);
    }
}

TEST_F(OnTerminal, TheShellEndsWhenTheTerminalGoes) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    terminal_type(&terminal, "sleep 5432\r");
    ASSERT_TRUE(wait_runs({"sleep", "5432"}));
    close(terminal.fd);
    terminal.fd = -1;
    EXPECT_EQ(host_wait(terminal.pid), 128 + SIGHUP);
    terminal.pid = -1;
    EXPECT_TRUE(wait_gone({"sleep", "5432"}));
    EXPECT_TRUE(wait_gone({"/system/bin/sh", "-"}));
}

TEST_F(OnTerminal, TheAgentsEndIsTheSessionsEnd) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_EQ(host({"kill"}).status, 0);  // init then ends what the agent had started
    EXPECT_TRUE(terminal_expect(&terminal, "the agent ended"));
    EXPECT_EQ(terminal_finish(&terminal), 255);
    EXPECT_TRUE(terminal_is_cooked(&terminal));
}

TEST_F(OnTerminal, SuspendGivesTheTerminalBackForAWhile) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    terminal_type(&terminal, "\r");
    ASSERT_TRUE(terminal_expect(&terminal, "# "));
    terminal_type(&terminal, "~\x1a");
    int raw = 0;
    ASSERT_TRUE(desk_until([&] { return waitpid(terminal.pid, &raw, WNOHANG | WUNTRACED) == terminal.pid; }));
    ASSERT_TRUE(WIFSTOPPED(raw));
    EXPECT_TRUE(terminal_is_cooked(&terminal));
    kill(terminal.pid, SIGCONT);
    EXPECT_TRUE(desk_until([&] { return !terminal_is_cooked(&terminal); }));
    EXPECT_TRUE(line("echo again", "again"));
}

TEST_F(OnTerminal, ACommandKeepsTheTerminalsOwnManners) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    start({"shell", "read x; echo got $x; sleep 8765"});
    ASSERT_TRUE(desk_until([&] { return desk_pids(h, "/system/bin/sh").size() > 0; }));
    EXPECT_TRUE(terminal_is_cooked(&terminal));
    terminal_type(&terminal, "word\n");
    EXPECT_TRUE(terminal_expect(&terminal, "got word"));
    ASSERT_TRUE(wait_runs({"sleep", "8765"}));
    terminal_type(&terminal, "\3");
    EXPECT_EQ(terminal_finish(&terminal), 128 + SIGINT);
    EXPECT_TRUE(wait_gone({"sleep", "8765"}));
}

TEST_F(OnTerminal, AFullScreenProgramGetsTheTerminal) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    ASSERT_TRUE(desk_write_file(h, "/data/text", "first line\n"));
    start({"shell", "-t", "TERM=vt100", "busybox", "vi", "/data/text"});
    EXPECT_TRUE(terminal_expect(&terminal, "first line"));
    EXPECT_FALSE(terminal_is_cooked(&terminal));
    terminal_type(&terminal, "x");
    EXPECT_TRUE(terminal_expect(&terminal, "irst line"));
    terminal_type(&terminal, ":wq\r");
    EXPECT_EQ(terminal_finish(&terminal), 0);
    EXPECT_EQ(desk_file_text(h, "/data/text"), "irst line\n");
}

TEST_F(OnTerminal, ConsoleWithHistoryAndCompletion) {
    if (HAS_CONSOLE == 0) {
        GTEST_SKIP() << "sa-host is built without readline";
    }
    temporary_dir home;
    ASSERT_EQ(setenv("HOME", home.path.c_str(), 1), 0);
    ASSERT_NO_FATAL_FAILURE(boot_host());
    start({"console"});
    auto types = [&](const std::string &keys, const std::string &output) {
        if (terminal_expect(&terminal, "sa> ")) {
            terminal_type(&terminal, keys);
            terminal_expect(&terminal, output);
        }
    };
    types("que\tzr-el\t\r", "query zr-elog");
    EXPECT_TRUE(terminal_expect(&terminal, "QUERY_SERVICE: 0\r\n"));
    types("\x10\r", "QUERY_SERVICE: 0\r\n");              // the line before
    types("query zr-qel-s\t\r", "QUERY_SERVICE: 1\r\n");  // a name that init alone knows
    types("+SYSTEM=\"true\"\r", "OK\r\n");
    types("unfinished\3", "^C");
    types("shell \"echo 'a  b'\"\r", "a  b\r\n");
    types("quit\r", "quit\r\n");
    EXPECT_EQ(terminal_finish(&terminal), 0);
    FILE *history = fopen((home.path + "/.sa-host_history").c_str(), "r");
    ASSERT_NE(history, nullptr);
    char text[1024];
    text[fread(text, 1, sizeof(text) - 1, history)] = '\0';
    fclose(history);
    EXPECT_NE(std::string(text).find("query zr-elog"), std::string::npos) << text;
}

TEST_F(OnTerminal, ConsoleLinesFromAPipe) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result script = host_with({"console"}, "# a comment\n\nquery zr-qel-sa\nsystem 'false'\nAT\nquit\nAT\n");
    EXPECT_EQ(script.out, "QUERY_SERVICE: 1\nOK\n");
    EXPECT_EQ(script.status, 1);
    EXPECT_EQ(host_with({"console"}, "query 'open\n").status, 3);
}

// A real terminal program in between: what a person sees on a screen of tmux, and that it is whole afterwards.
TEST_F(OnTerminal, InTmux) {
    if (system("tmux -V >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "tmux is not installed";
    }
    ASSERT_NO_FATAL_FAILURE(boot_host());
    temporary_dir dir;
    const std::string tmux = "tmux -f /dev/null -S " + dir.path + "/socket ";
    auto screen = [&] {
        FILE *pane = popen((tmux + "capture-pane -p").c_str(), "r");
        std::string text(20000, '\0');
        text.resize(pane != nullptr ? fread(&text[0], 1, text.size(), pane) : 0);
        pclose(pane);
        return text;  // without the blanks that end a line
    };
    auto shows = [&](const std::string &text) {
        return desk_until([&] { return screen().find(text) != std::string::npos; }, 20000);
    };
    std::string program = SA_HOST " --root " + desk_host_path(h, "/") + " shell";
    ASSERT_EQ(system((tmux + "new-session -d -x 90 -y 30 'PS1=local: exec /bin/sh'").c_str()), 0);
    ASSERT_EQ(system((tmux + "send-keys '" + program + "' Enter").c_str()), 0);
    EXPECT_TRUE(shows("\n#")) << screen();
    ASSERT_EQ(system((tmux + "send-keys 'seq 3; busybox stty size' Enter").c_str()), 0);
    EXPECT_TRUE(shows("\n1\n2\n3\n30 90\n#")) << screen();
    ASSERT_EQ(system((tmux + "send-keys C-d").c_str()), 0);
    EXPECT_TRUE(shows("\nlocal:")) << screen();
    ASSERT_EQ(system((tmux + "send-keys 'echo back' Enter").c_str()), 0);
    EXPECT_TRUE(shows("\nback\nlocal:")) << screen();
    EXPECT_EQ(system((tmux + "kill-server").c_str()), 0);
}

}  // namespace
