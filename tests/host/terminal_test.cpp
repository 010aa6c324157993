// The remote shell and the console as a person uses them: on a terminal, which always gets back what it was.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/host/support.h"

namespace {

std::string repeated(const std::string &text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

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

    // The attributes that programs on the handset have given their terminal: the one that sa-host has open beside its own.
    bool attributes(struct termios *attr) {
        for (int i = STDERR_FILENO + 1; i < 32; ++i) {
            const std::string path = "/proc/" + std::to_string(terminal.pid) + "/fd/" + std::to_string(i);
            struct stat st = {};
            if (stat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode) && st.st_uid == 1000) {
                const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
                const bool is_known = fd >= 0 && tcgetattr(fd, attr) == 0;
                close(fd);
                return is_known;
            }
        }
        return false;
    }
    bool wait_reads_lines(bool is_echoed = true) {
        return desk_until([&] {
            struct termios attr = {};
            return attributes(&attr) && (attr.c_lflag & ICANON) != 0 && ((attr.c_lflag & ECHO) != 0) == is_echoed;
        });
    }
    bool is_stopped(const words &argv) {
        for (pid_t pid : desk_pids(h, argv[0])) {
            if (desk_arguments(h, pid) == argv) {
                return desk_file_text(h, "/proc/" + std::to_string(pid) + "/stat").find(") T ") != std::string::npos;
            }
        }
        return false;
    }
    // Types a command line and waits until its program runs and reads lines; `argv` is empty for the shell itself.
    bool starts_reading(const std::string &command, const words &argv, bool is_echoed = true) {
        terminal_type(&terminal, command + "\r");
        return terminal_expect(&terminal, command + "\r\r\n") && (argv.empty() || wait_runs(argv)) &&
               wait_reads_lines(is_echoed);
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
    terminal_type(&terminal, "busybox stty -icanon -isig; echo go; busybox hexdump -C -n 3\r");
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

// ---- Programs that read lines, and programs that read keys

// What reaches the file is what a person sees on the line; nothing else of what was typed does.
TEST_F(OnTerminal, LinesAreEchoedAndEdited) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(starts_reading("cat > /data/typed", {"cat"}));
    terminal_type(&terminal, "abcd\x7f\bXY\r");
    EXPECT_TRUE(terminal_expect(&terminal, "abcd\b \b\b \bXY\r\n"));
    terminal_type(&terminal, "one two  \x17three\r");
    EXPECT_TRUE(terminal_expect(&terminal, "one two  \b \b\b \b\b \b\b \b\b \bthree\r\n"));
    terminal_type(&terminal, "gone\x15kept\r");
    EXPECT_TRUE(terminal_expect(&terminal, "gone\b \b\b \b\b \b\b \bkept\r\n"));
    terminal_type(&terminal,
                  "a\xc3\xa4\x7f\t\x7f\x1b\x7f~b\r");  // a character of two bytes, a tab, a control character
    EXPECT_TRUE(terminal_expect(&terminal,
                                "a\xc3\xa4\b \b" + std::string(7, ' ') + repeated("\b \b", 7) + "^[\b \b\b \b~b\r\n"));
    terminal_type(&terminal, "\x7f\x15\x17\r");  // nothing to erase
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, "/data/typed") == "abXY\none three\nkept\na~b\n\n"; }))
        << desk_file_text(h, "/data/typed");
}

TEST_F(OnTerminal, CtrlDEndsTheInputOfAProgram) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    EXPECT_TRUE(line("sleep 3210 &", "[1]"));  // must survive, and must not be taken for the reader
    for (const words &reader : {words{"cat"}, words{"toybox", "cat"}, words{"busybox", "cat"}}) {
        const std::string program = reader.size() == 1 ? reader[0] : reader[0] + " " + reader[1];
        ASSERT_TRUE(starts_reading(program + " > /data/typed; echo ended", reader));
        terminal_type(&terminal, "first\rlast\x04\x04");  // the first one sends the unfinished line
        EXPECT_TRUE(terminal_expect(&terminal, "\r\nended\r\n# ")) << program;
        EXPECT_EQ(desk_file_text(h, "/data/typed"), "first\nlast");
    }
    ASSERT_TRUE(starts_reading("busybox sort", {"busybox", "sort"}));
    terminal_type(&terminal, "b\ra\r\x04");
    EXPECT_TRUE(terminal_expect(&terminal, "\na\r\nb\r\n# "));
    ASSERT_TRUE(starts_reading("sh -c 'read x || echo \"no line\"'", {"sh", "-c", "read x || echo \"no line\""}));
    terminal_type(&terminal, "\x04");
    EXPECT_TRUE(terminal_expect(&terminal, "\nno line\r\n# "));
    EXPECT_TRUE(line("jobs", "Running"));
    EXPECT_EQ(terminal.screen.find("Stopped"), std::string::npos) << terminal.screen;
    EXPECT_TRUE(runs({"sleep", "3210"}));
    terminal_type(&terminal, "\x04");  // and at the prompt it ends the shell
    terminal_type(&terminal, "\x04");  // which warns of the job first
    EXPECT_EQ(terminal_finish(&terminal), 0);
}

TEST_F(OnTerminal, CtrlDEndsTheInputBelowAShellInTheShell) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    terminal_type(&terminal, "PS1=inner#: mksh\r");
    ASSERT_TRUE(terminal_expect(&terminal, "\ninner#:"));
    ASSERT_TRUE(starts_reading("sh -c 'cat > /data/typed; echo ended'", {"cat"}));
    terminal_type(&terminal, "text\r\x04");
    EXPECT_TRUE(terminal_expect(&terminal, "\nended\r\ninner#:"));
    EXPECT_EQ(desk_file_text(h, "/data/typed"), "text\n");
    terminal_type(&terminal, "echo $((90 + 9))\r");
    EXPECT_TRUE(terminal_expect(&terminal, "99\r\ninner#:"));
    terminal_type(&terminal, "\x04");
    EXPECT_TRUE(terminal_expect(&terminal, "\n# "));
    EXPECT_EQ(terminal.screen.find("Stopped"), std::string::npos) << terminal.screen;
}

// What is typed after the end is for whoever reads next.
TEST_F(OnTerminal, TypedAheadOfCtrlD) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(starts_reading("cat > /data/typed", {"cat"}));
    terminal_type(&terminal,
                  "text\r\x04"
                  "echo $((50 + 5))\r");
    EXPECT_TRUE(terminal_expect(&terminal, "55\r\n# "));
    EXPECT_EQ(desk_file_text(h, "/data/typed"), "text\n");
}

// The shell's own `read` cannot be told the end: the next prompt would end the session. It stays as it is.
TEST_F(OnTerminal, CtrlDDoesNotEndTheShellsOwnRead) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(starts_reading("read x", {}));
    terminal_type(&terminal, "\x04word\r");
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    EXPECT_TRUE(line("echo got $x", "got word\r\n"));
}

TEST_F(OnTerminal, ShellScriptsThatAsk) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(starts_reading("read x; echo \"<$x>\"", {}));
    terminal_type(&terminal, "two words\r");
    EXPECT_TRUE(terminal_expect(&terminal, "two words\r\n<two words>\r\n# "));
    ASSERT_TRUE(
        starts_reading("sh -c 'read x; read y; echo \"<$x$y>\"'", {"sh", "-c", "read x; read y; echo \"<$x$y>\""}));
    terminal_type(&terminal, "aX\x7f\rb\r");
    EXPECT_TRUE(terminal_expect(&terminal, "<ab>\r\n# "));
}

TEST_F(OnTerminal, SecretsAreNotEchoed) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(starts_reading("busybox sh -c 'read -s x; echo \"<$x>\"'", {}, false));
    terminal_type(&terminal,
                  "hidX\x7f"
                  "den\r");
    EXPECT_TRUE(terminal_expect(&terminal, "<hidden>\r\n# "));
    const std::string shown = terminal.screen.substr(0, terminal.screen.find("<hidden>"));
    EXPECT_EQ(shown.find("hid"), std::string::npos) << shown;
    ASSERT_TRUE(starts_reading("busybox stty -echo; read x; busybox stty echo; echo \"<$x>\"", {}, false));
    terminal_type(&terminal, "again\r");
    EXPECT_TRUE(terminal_expect(&terminal, "<again>\r\n# "));
}

// A line that nobody has taken when the shell prompts again goes on as its command line.
TEST_F(OnTerminal, TypedAheadGoesToTheShell) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(starts_reading("until [ -e /data/go ]; do sleep 0.05; done", {}));
    terminal_type(&terminal, "echo $((30 + 3))X\x7f\recho $((40 + 4");
    ASSERT_TRUE(terminal_expect(&terminal, "echo $((40 + 4"));
    ASSERT_TRUE(desk_write_file(h, "/data/go", ""));
    EXPECT_TRUE(terminal_expect(&terminal, "33\r\n"));
    EXPECT_TRUE(terminal_expect(&terminal, "# echo $((40 + 4"));
    terminal_type(&terminal, "))\r");
    EXPECT_TRUE(terminal_expect(&terminal, "44\r\n# "));
}

TEST_F(OnTerminal, CtrlZStopsAJob) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    terminal_type(&terminal, "sleep 6543\r");
    ASSERT_TRUE(wait_runs({"sleep", "6543"}));
    ASSERT_TRUE(wait_reads_lines());
    terminal_type(&terminal, "\x1a");
    EXPECT_TRUE(terminal_expect(&terminal, "Stopped"));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    ASSERT_TRUE(starts_reading("cat > /data/typed", {"cat"}));
    terminal_type(&terminal, "line\r\x04");  // the end is for the program that reads, and wakes no stopped one
    EXPECT_TRUE(terminal_expect(&terminal, "\n# "));
    EXPECT_TRUE(line("jobs", "Stopped"));
    terminal_type(&terminal, "fg\r");
    ASSERT_TRUE(terminal_expect(&terminal, "sleep 6543\r\n"));
    ASSERT_TRUE(wait_reads_lines() && desk_until([&] { return !is_stopped({"sleep", "6543"}); }));
    terminal_type(&terminal, "\3");
    EXPECT_TRUE(wait_gone({"sleep", "6543"}));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
}

TEST_F(OnTerminal, KeysGoToProgramsThatReadKeys) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(desk_write_file(h, "/data/text", "first line\n"));
    terminal_type(&terminal, "TERM=vt100 busybox vi /data/text\r");
    EXPECT_TRUE(terminal_expect(&terminal, "first line"));
    terminal_type(&terminal, "x:wX\x7fq\r");  // Backspace is a key of the program, not ours
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    EXPECT_EQ(desk_file_text(h, "/data/text"), "irst line\n");
    for (const char *top : {"busybox top", "toybox top"}) {
        terminal_type(&terminal, std::string(top) + "\r");
        EXPECT_TRUE(terminal_expect(&terminal, "zr-qel-sa")) << top;
        terminal_type(&terminal, "q");
        EXPECT_TRUE(terminal_expect(&terminal, "# ")) << top;
    }
    ASSERT_TRUE(starts_reading("cat > /data/typed", {"cat"}));  // whatever attributes the last one left behind
    terminal_type(&terminal, "line\r");
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, "/data/typed") == "line\n"; }));
}

// The name of a master leads to a new terminal: such a program reads its keys where nobody types.
TEST_F(OnTerminal, AProgramThatOpensItsTerminalByNameCanBeLeft) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    ASSERT_TRUE(desk_write_file(h, "/data/text", "first line\n"));
    terminal_type(&terminal, "TERM=vt100 busybox less /data/text\r");
    EXPECT_TRUE(terminal_expect(&terminal, "first line"));
    EXPECT_TRUE(runs({"busybox", "less", "/data/text"}));
    terminal_type(&terminal, "\x1a");
    EXPECT_TRUE(terminal_expect(&terminal, "Stopped"));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    terminal_type(&terminal, "kill -9 %%\r");
    EXPECT_TRUE(wait_gone({"busybox", "less", "/data/text"}));
    EXPECT_TRUE(terminal_expect(&terminal, "# "));
    EXPECT_TRUE(line("echo $((80 + 8))", "88\r\n"));
}

TEST_F(OnTerminal, SaneAttributesDoNoHarm) {
    ASSERT_NO_FATAL_FAILURE(start_shell());
    EXPECT_TRUE(line("busybox stty sane; echo $((60 + 6))", "66\r\n"));
    EXPECT_TRUE(line("echo $((70 + 7))", "77\r\n"));
    ASSERT_TRUE(starts_reading("cat > /data/typed", {"cat"}));
    terminal_type(&terminal, "line\r");
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, "/data/typed") == "line\n"; }))
        << desk_file_text(h, "/data/typed");
}

TEST_F(OnTerminal, ACommandWithTheTerminalReadsLinesToo) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    start({"shell", "-t", "cat > /data/typed; echo $?; exit 5"});
    ASSERT_TRUE(wait_runs({"cat"}));
    ASSERT_TRUE(wait_reads_lines());
    ASSERT_TRUE(desk_until([&] { return !terminal_is_cooked(&terminal); }));
    terminal_type(&terminal, "lineX\x7f\r\x04");
    EXPECT_TRUE(terminal_expect(&terminal, "\n1\r\n"));  // a read error for cat
    EXPECT_EQ(terminal_finish(&terminal), 5);
    EXPECT_EQ(desk_file_text(h, "/data/typed"), "line\n");
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

TEST_F(OnTerminal, InTmux) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    try_shell_in_tmux();
}

}  // namespace
