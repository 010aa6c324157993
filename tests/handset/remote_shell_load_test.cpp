// Many remote shells, sequential and in parallel, large output, and the descriptors of a shell child.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include "tests/support/remote_shell.h"

class RemoteLoad : public RemoteShellTest {};

TEST_F(RemoteLoad, AHundredShellsInARowLeaveNothingBehind) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < 100; round++) {
        const int fd = connect("shell:echo " + std::to_string(round));
        EXPECT_EQ(read_until(fd, "\n"), std::to_string(round) + "\n");
        close(fd);  // the waiter's pause goes on behind our back
    }
    EXPECT_TRUE(holds_nothing_more());
    int ended = 0;
    for (const std::string &line : file_lines()) {
        ended += line.find("] exit code[0]") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(ended, 100);
}

TEST_F(RemoteLoad, TwentyShellsSideBySideStayApart) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    std::vector<int> open;
    for (int index = 0; index < 20; index++) {
        open.push_back(connect("shell:"));
    }
    EXPECT_TRUE(desk_until([&] { return threads(agent) == 2 + 20; })) << "a waiter each";
    for (int index = 0; index < 20; index++) {
        read_until(open[static_cast<size_t>(index)], "# ");
        write_all(open[static_cast<size_t>(index)], "mine=" + std::to_string(index) + "\n");
    }
    for (int index = 19; index >= 0; index--) {
        const int fd = open[static_cast<size_t>(index)];
        read_until(fd, "# ");
        write_all(fd, "echo [$mine]\n");
        EXPECT_NE(read_until(fd, "# ").find("\n[" + std::to_string(index) + "]"), std::string::npos);
    }
    EXPECT_EQ(ask("AT\r"), kOk);
    for (const int fd : open) {
        close(fd);
    }
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteLoad, ShellsKilledFromOutsideAreReaped) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    std::vector<int> open;
    std::vector<pid_t> shells;
    for (int index = 0; index < 10; index++) {
        open.push_back(connect("shell:echo up; exec sleep 1000"));
        EXPECT_EQ(read_until(open.back(), "\n"), "up\n");
        shells.push_back(last_child());
    }
    for (const pid_t shell : shells) {
        ASSERT_TRUE(desk_kill(h, shell, SIGKILL));
    }
    for (const pid_t shell : shells) {
        EXPECT_TRUE(wait_file_line("subproc_waiter_service pid[" + std::to_string(shell) + "] killed by signal[9]"));
    }
    for (const int fd : open) {
        EXPECT_EQ(read_to_end(fd), "");
        close(fd);
    }
    EXPECT_TRUE(holds_nothing_more());
}

// One block of noise, a hundred times over in one cat.
TEST_F(RemoteLoad, AHundredMegabytesArriveBitByBit) {
    std::string block(1 << 20, '\0');
    uint64_t state = 88172645463325252u;
    for (char &byte : block) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        byte = static_cast<char>(state >> 24);
    }
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_TRUE(desk_write_file(h, "/tmp/f", block));
    std::string command = "shell:cat";
    for (int copy = 0; copy < 100; copy++) {
        command += " /tmp/f";
    }
    const int fd = connect(command);
    size_t total = 0;
    std::vector<char> bytes(1 << 16);
    for (;;) {
        const ssize_t count = read(fd, bytes.data(), bytes.size());
        if (count <= 0) {
            break;
        }
        for (size_t done = 0; done < static_cast<size_t>(count);) {
            const size_t at = (total + done) % block.size();
            const size_t part = std::min(static_cast<size_t>(count) - done, block.size() - at);
            ASSERT_EQ(block.compare(at, part, bytes.data() + done, part), 0) << "at byte " << total + done;
            done += part;
        }
        total += static_cast<size_t>(count);
    }
    EXPECT_EQ(total, block.size() * 100);
    close(fd);
    EXPECT_TRUE(holds_nothing_more());
}

// What a child wrote just before its end is there for as long as the waiter pauses.
TEST_F(RemoteLoad, OutputWrittenJustBeforeTheEndArrives) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_TRUE(desk_write_file(h, "/tmp/last", std::string(3000, 'l')));
    for (int round = 0; round < 10; round++) {
        EXPECT_EQ(run_remote("exec cat /tmp/last").size(), 3000u) << round;
    }
}

TEST_F(RemoteLoad, AShellHoldsItsTerminalAndNothingElse) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int other = connect("shell:cat");  // a connection of somebody else
    std::string path;
    const int fd = connect("shell:echo up; exec sleep 1000", &path);
    EXPECT_EQ(read_until(fd, "\n"), "up\n");
    const pid_t shell = last_child();
    ASSERT_TRUE(desk_until([&] { return desk_arguments(h, shell) == std::vector<std::string>{"sleep", "1000"}; }));
    // The loader, at its start, has open what it loads.
    ASSERT_TRUE(desk_until([&] { return descriptors(shell).size() == 3; })) << descriptors(shell).back();
    const std::vector<std::string> held = descriptors(shell);
    for (int index = 0; index < 3; index++) {
        EXPECT_EQ(held[static_cast<size_t>(index)].compare(0, 5, std::to_string(index) + " -> "), 0);
        EXPECT_NE(held[static_cast<size_t>(index)].find("ptmx"), std::string::npos) << held[static_cast<size_t>(index)];
    }
    // It is the master of just this client's terminal that it holds.
    const std::string info = desk_file_text(h, "/proc/" + std::to_string(shell) + "/fdinfo/0");
    EXPECT_NE(info.find("tty-index:\t" + path.substr(path.rfind('/') + 1) + "\n"), std::string::npos) << info;
    close(fd);
    close(other);
    desk_kill(h, shell, SIGKILL);
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteLoad, AShellLeadsASessionAsTheAgentsUserWithDefaultSignals) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string text = run_remote("exec cat /proc/self/stat /proc/self/status");
    const std::string pid = std::to_string(last_child());
    const std::string fields = text.substr(text.rfind(')', text.find('\n')));
    EXPECT_EQ(fields.compare(0, 6 + std::to_string(agent).size() + 2 * pid.size(),
                             ") R " + std::to_string(agent) + " " + pid + " " + pid),
              0)
        << fields.substr(0, 40);
    for (const std::string &line :
         {std::string("\nUid:\t0\t0\t0\t0\n"), std::string("\nGid:\t0\t0\t0\t0\n"),
          std::string("\nSigBlk:\t0000000000000000\n"), std::string("\nSigIgn:\t0000000000000000\n")}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
}

// What a shell leaves running in the background keeps the terminal open; the agent has let go of it.
TEST_F(RemoteLoad, OrphansOfAShellAreNotTheAgents) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const int fd = connect("shell:sleep 1000 & echo $!");
    const pid_t orphan = atoi(read_until(fd, "\n").c_str());
    ASSERT_TRUE(wait_reaped(last_child()));
    EXPECT_TRUE(holds_nothing_more());
    EXPECT_TRUE(desk_exists(h, "/proc/" + std::to_string(orphan)));
    desk_kill(h, orphan, SIGKILL);
    EXPECT_EQ(read_to_end(fd), "");
    close(fd);
}
