// The command channel's pseudo-terminal: its name, its slave, and how it reopens after a hang-up.
#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tests/support/agent.h"

static const char kLink[] = "/dev/ttyCMD0";
static const char kConfig[] = "/system/etc/zr-qel-sa.cfg";

class Endpoint : public AgentTest {
  protected:
    // A handset whose agent has not been started yet.
    void boot_without_agent(const std::string &channel_name = kLink) {
        desk_options options = quiet_options();
        options.agent = false;
        options.files.push_back({kConfig, "zr.tty.cmd=" + channel_name + "\n", "", 0644, 0, 0});
        boot_only(options);
    }

    // Starts the agent and waits until its reader waits for a client, or has given up.
    pid_t start() {
        const desk_child agent = launch();
        EXPECT_TRUE(wait_listening(agent.pid));
        EXPECT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
        return agent.pid;
    }

    int count_part(const std::string &part) {
        const std::vector<std::string> lines = file_lines();
        return static_cast<int>(std::count_if(
            lines.begin(), lines.end(), [&](const std::string &line) { return line.find(part) != std::string::npos; }));
    }

    // Hangs up and waits until the agent has a fresh pseudo-terminal under the name.
    void hang_up_and_wait() {
        const int before = count_part("sa_handle_read_cmd_loop reopen m_ptm_fd[");
        hang_up();
        ASSERT_TRUE(desk_until([&] { return count_part("sa_handle_read_cmd_loop reopen m_ptm_fd[") == before + 1; }));
    }

    // What the shared library logged from opening the endpoint on. Cut out: line numbers, and the errno of reports of a
    // bad parameter, where no call has failed.
    std::vector<std::string> library_lines() {
        settle();
        std::vector<std::string> lines = platform_lines("zr-qel-pub");
        lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), "pub_pty_open()"));
        for (std::string &line : lines) {
            const size_t begin = line.find("LINE-");
            if (begin != std::string::npos) {
                line.erase(begin + 5, line.find(',', begin) - begin - 5);
            }
            const size_t bad_parameter = line.find(" error_code=-101,");
            if (bad_parameter != std::string::npos) {
                line.resize(bad_parameter + 17);
            }
        }
        return lines;
    }

    // The number that the loop's line tells for the master.
    std::string master() {
        const std::string before = "sa_handle_read_cmd_loop ptm_fd[";
        for (const std::string &line : file_lines()) {
            if (line.compare(0, before.size(), before) == 0) {
                return line.substr(before.size(), line.find(']') - before.size());
            }
        }
        return "";
    }
};

// ---- what a client finds

TEST_F(Endpoint, IsPublishedByALinkToItsSlave) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(desk_link_target(h, kLink).compare(0, 9, "/dev/pts/"), 0) << desk_link_target(h, kLink);
    EXPECT_EQ(desk_owner(h, kLink), "0660 1000:1001");
    EXPECT_EQ(desk_owner(h, desk_link_target(h, kLink)), "0660 1000:1001");
}

TEST_F(Endpoint, IsRawAndOtherwiseAsTheSystemMakesIt) {
    ASSERT_NO_FATAL_FAILURE(boot());
    struct termios found;
    ASSERT_EQ(tcgetattr(channel, &found), 0);

    const int fresh = posix_openpt(O_RDWR | O_NOCTTY);
    struct termios usual;
    ASSERT_EQ(tcgetattr(fresh, &usual), 0);
    close(fresh);
    EXPECT_EQ(found.c_iflag, 0u);
    EXPECT_EQ(found.c_oflag, usual.c_oflag & ~0x3Bu);
    EXPECT_NE(found.c_oflag & ONLCR, 0u);
    EXPECT_EQ(found.c_lflag, usual.c_lflag & ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE));
    EXPECT_EQ(found.c_cflag, usual.c_cflag);
    EXPECT_EQ(memcmp(found.c_cc, usual.c_cc, sizeof(found.c_cc)), 0);
}

TEST_F(Endpoint, MasterIsNotInheritedByPrograms) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
    const std::string info = desk_file_text(h, "/proc/" + std::to_string(desk_agent_pid(h)) + "/fdinfo/" + master());
    const size_t flags = info.find("flags:\t");
    ASSERT_NE(flags, std::string::npos);
    EXPECT_NE(strtoul(info.c_str() + flags + 7, nullptr, 8) & O_CLOEXEC, 0u);
    EXPECT_EQ(strtoul(info.c_str() + flags + 7, nullptr, 8) & O_NONBLOCK, 0u);
}

TEST_F(Endpoint, IsOpenedStepByStep) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
    const std::string fd = master();
    const std::string slave = desk_link_target(h, kLink);
    EXPECT_EQ(library_lines(),
              (std::vector<std::string>{
                  "pub_pty_open()",
                  "pub_pty_open m_ptm_fd[0]",
                  "pub_pty_open m_ptm_fd[" + fd + "]",
                  "create_pts_mapping()",
                  "create_pts_mapping pts_name_ptr[" + slave + "]",
                  "create_pts_mapping m_pts_name_a[" + slave + "] ret_val[0]",
                  "create_pts_mapping unlink(/dev/ttyCMD0) ret_val[-1]",
                  "create_pts_mapping symlink(" + slave + ", /dev/ttyCMD0) ret_val[0]",
                  "create_pts_mapping chmod(/dev/ttyCMD0, 432) ret_val[0]",
                  "create_pts_mapping chown(/dev/ttyCMD0, 1000, 1001) ret_val[0]",
                  "create_pts_mapping m_pts_mapping_name_a[/dev/ttyCMD0] ret_val[0]",
                  "set_ptm_attr()",
                  "set_ptm_attr fd[" + fd + "]",
                  "set_ptm_attr tcgetattr(" + fd + ") ret_val[0]",
                  "set_ptm_attr tcsetattr(" + fd + ") ret_val[0]",
                  "set_ptm_attr grantpt(" + fd + ") ret_val[0]",
                  "set_ptm_attr unlockpt(" + fd + ") ret_val[0]",
                  "set_ptm_attr fd[" + fd + "] ret_val[0]",
                  "pub_pty_open \"/dev/ttyCMD0\" exists",
                  "pub_pty_open m_ptm_fd[" + fd + "]; m_pts_name_a[" + slave + "] m_pts_mapping_name_a[/dev/ttyCMD0]",
              }));
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop ptm_fd[" + fd + "] pts_name[" + slave +
                                            "] pts_mapping_name[/dev/ttyCMD0] ret_val[0]"),
              1);
    EXPECT_EQ(
        count_lines(platform_lines(), "sa_handle_read_cmd_loop pub_pty_open m_ptm_fd[" + fd + "] pts_name_a[" + slave +
                                          "] pts_mapping_name_a[/dev/ttyCMD0] is_nonblock_mode[0] "
                                          "ret_val[0]"),
        1);
}

// ---- what stands at the name already

TEST_F(Endpoint, ReplacesAFile) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_TRUE(desk_write_file(h, kLink, "in the way"));
    start();
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_TRUE(in_order(library_lines(), {"create_pts_mapping unlink(/dev/ttyCMD0) ret_val[0]",
                                           "create_pts_mapping \"/dev/ttyCMD0\" not exists",
                                           "create_pts_mapping m_pts_mapping_name_a[/dev/ttyCMD0] ret_val[0]"}));
}

TEST_F(Endpoint, ReplacesALinkAndLeavesItsTargetAlone) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_TRUE(desk_write_file(h, "/data/target", "precious", 0604, 5, 6));
    ASSERT_EQ(run({"/system/bin/ln", "-s", "/data/target", kLink}).status, 0);
    start();
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/target"), "precious");
    EXPECT_EQ(desk_owner(h, "/data/target"), "0604 5:6");
}

TEST_F(Endpoint, GivesUpOnADirectoryAndTheAgentGoesOn) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_TRUE(desk_make_dir(h, kLink));
    const pid_t pid = start();
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-118]"));
    EXPECT_TRUE(
        in_order(library_lines(),
                 {"create_pts_mapping unlink(/dev/ttyCMD0) ret_val[-1]", "sys call: symlink() failed! errno = 17",
                  "FILE-pub/pty/pty, LINE-, FUNC-create_pts_mapping(), error_code=-1, errno=17",
                  "FILE-pub/pty/pty, LINE-, FUNC-create_pts_mapping(), error_code=-118, errno=17",
                  "create_pts_mapping m_pts_mapping_name_a[/dev/ttyCMD0] ret_val[-118]", "pub_pty_delete_mapping()",
                  "pub_pty_delete_mapping unlink(/dev/ttyCMD0) ret_val[-1]", "sys call: unlink() failed! errno = 21",
                  "FILE-pub/pty/pty, LINE-, FUNC-pub_pty_delete_mapping(), error_code=-118, errno=21",
                  "pub_pty_close()", "pub_pty_close pub_pty_delete_mapping ret_val[-118]"}));
    // A close that cannot remove the name keeps the master.
    EXPECT_NE(master(), "-1");
    EXPECT_NE(desk_link_target(h, "/proc/" + std::to_string(pid) + "/fd/" + master()), "");
    EXPECT_TRUE(desk_until([&] { return threads(pid) == 1; }));
    EXPECT_TRUE(desk_exists(h, "/dev/ttysa1"));
}

// ---- names that cannot be published

TEST_F(Endpoint, WithoutANameTheReaderEndsAtOnce) {
    desk_options options = quiet_options();
    options.agent = false;
    options.config = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    const pid_t pid = start();
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-1]"));
    EXPECT_EQ(count_lines(file_lines(),
                          "sa_handle_read_cmd_loop ptm_fd[-1] pts_name[] pts_mapping_name[] "
                          "ret_val[-101]"),
              1);
    EXPECT_TRUE(
        in_order(library_lines(),
                 {"create_pts_mapping()", "FILE-pub/pty/pty, LINE-, FUNC-create_pts_mapping(), error_code=-101,",
                  "[PTY]0, 0, 1", "pub_pty_close()", "pub_pty_close pub_pty_delete_mapping ret_val[0]",
                  "pub_pty_close()", "FILE-pub/pty/pty, LINE-, FUNC-pub_pty_close(), error_code=-101,", "0, 1"}));
    EXPECT_EQ(count_lines(platform_lines(), "sa_handle_read_cmd_loop pub_pty_close ret_val[-1]"), 1);
    EXPECT_TRUE(desk_until([&] { return threads(pid) == 1; }));
    const int listener = desk_open_tty(h, "/dev/ttysa1");  // the rest of the agent is there
    EXPECT_GE(listener, 0) << desk_error();
    close(listener);
}

TEST_F(Endpoint, InAMissingDirectoryTheReaderEnds) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent("/nowhere/tty"));
    const pid_t pid = start();
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-1]"));
    EXPECT_EQ(count_lines(file_lines(),
                          "sa_handle_read_cmd_loop ptm_fd[-1] pts_name[] pts_mapping_name[/nowhere/tty] "
                          "ret_val[-118]"),
              1);
    const std::vector<std::string> lines = library_lines();
    EXPECT_TRUE(in_order(lines, {"sys call: symlink() failed! errno = 2", "pub_pty_delete_mapping()", "WARNING !",
                                 "pub_pty_delete_mapping \"/nowhere/tty\" does not exist", "pub_pty_close()",
                                 "pub_pty_close pub_pty_delete_mapping ret_val[0]"}));
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string &line) {
                                return line.compare(0, 15, "[PTY]map /dev/p") == 0 &&
                                       line.find(" -> /nowhere/tty failed") != std::string::npos;
                            }),
              1);
    EXPECT_TRUE(desk_until([&] { return threads(pid) == 1; }));
}

// ---- clients that go

TEST_F(Endpoint, IsReopenedWhenTheClientGoes) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_NO_FATAL_FAILURE(hang_up_and_wait());
    const std::string slave = desk_link_target(h, kLink);
    EXPECT_EQ(desk_owner(h, kLink), "0660 1000:1001");
    const std::string fd = master();
    EXPECT_TRUE(
        in_order(file_lines(), {"sa_handle_read_cmd_loop req[AT\r] ret_val[0]", "sa_handle_read_cmd_loop read_len[-1]",
                                "sa_handle_read_cmd_loop read errno[5-Input/output error]",
                                "sa_handle_read_cmd_loop EIO pub_pty_close ret_val[0]",
                                "sa_handle_read_cmd_loop reopen m_ptm_fd[" + fd + "] pts_name_a[" + slave +
                                    "] pts_mapping_name_a[/dev/ttyCMD0] ret_val[0]"}));
    settle();
    EXPECT_TRUE(in_order(
        platform_lines(),
        {"sa_handle_read_cmd_loop errno[5][Input/output error]", "sa_handle_read_cmd_loop EIO pub_pty_close ret_val[0]",
         "sa_handle_read_cmd_loop EIO pub_pty_open m_ptm_fd[" + fd + "] pts_name_a[" + slave +
             "] pts_mapping_name_a[/dev/ttyCMD0] is_nonblock_mode[0] ret_val[0]"}));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Endpoint, FiftyClientsLeaveNoDescriptorAndNoThread) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_listener_loop fd["));
    const std::vector<std::string> before = descriptors(pid);
    const int threads_before = threads(pid);
    for (int client = 0; client < 50; client++) {
        ASSERT_EQ(ask("AT\r"), kOk) << client;
        ASSERT_NO_FATAL_FAILURE(hang_up_and_wait()) << client;
        open_channel();
    }
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_TRUE(desk_until([&] { return descriptors(pid) == before; }))
        << ::testing::PrintToString(before) << ::testing::PrintToString(descriptors(pid));
    EXPECT_EQ(threads(pid), threads_before);
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop EIO pub_pty_close ret_val[0]"), 50);
}

TEST_F(Endpoint, StaysWhileASecondClientHoldsIt) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const int second = desk_open_tty(h, kLink);
    ASSERT_GE(second, 0) << desk_error();
    hang_up();
    channel = second;
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(count_part("EIO"), 0);
}

TEST_F(Endpoint, SomebodyElseHavingRemovedTheLinkIsNoFailure) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(desk_remove(h, kLink));
    ASSERT_NO_FATAL_FAILURE(hang_up_and_wait());
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop EIO pub_pty_close ret_val[0]"), 1);
    EXPECT_TRUE(in_order(library_lines(), {"pub_pty_close()", "pub_pty_delete_mapping()", "WARNING !",
                                           "pub_pty_delete_mapping \"/dev/ttyCMD0\" does not exist",
                                           "pub_pty_close pub_pty_delete_mapping ret_val[0]"}));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Endpoint, AFailedReopenEndsTheReaderAlone) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    ASSERT_EQ(ask("AT\r"), kOk);
    const int threads_before = threads(pid);
    ASSERT_TRUE(desk_remove(h, kLink));
    ASSERT_TRUE(desk_make_dir(h, kLink));
    hang_up();
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-118]"));
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop EIO pub_pty_close ret_val[-118]"), 1);
    EXPECT_EQ(count_part("] pts_mapping_name_a[/dev/ttyCMD0] ret_val[-118]"), 1);
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop reopen errno[17-File exists]"), 1)
        << "the errno of symlink";
    EXPECT_TRUE(desk_until([&] { return threads(pid) == threads_before - 1; }));
    EXPECT_EQ(desk_agent_pid(h), pid);
}

TEST_F(Endpoint, WithoutADescriptorTheReopenFailsAndTheAgentStays) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    const int threads_before = threads(pid);
    const std::vector<std::string> limit = {"/usr/bin/prlimit", "--pid", std::to_string(pid)};
    std::vector<std::string> none = limit;
    none.push_back("--nofile=3:4096");
    ASSERT_EQ(run(none).status, 0);
    hang_up();
    ASSERT_TRUE(desk_until([&] { return threads(pid) == threads_before - 1; }));
    EXPECT_TRUE(in_order(
        library_lines(),
        {"pub_pty_close pub_pty_delete_mapping ret_val[0]", "pub_pty_open()", "pub_pty_open m_ptm_fd[-1]",
         "pub_pty_open m_ptm_fd[-1]", "sys call: open() failed! errno = 24",
         "FILE-pub/pty/pty, LINE-, FUNC-pub_pty_open(), error_code=-118, errno=24", "pub_pty_close()", "0, 1"}));
    EXPECT_TRUE(in_order(platform_lines(), {"sa_handle_read_cmd_loop EIO pub_pty_close ret_val[0]",
                                            "sa_handle_read_cmd_loop EIO pub_pty_open m_ptm_fd[-1] pts_name_a[] "
                                            "pts_mapping_name_a[/dev/ttyCMD0] is_nonblock_mode[0] ret_val[-118]",
                                            "sa_handle_read_cmd_loop pub_pty_close ret_val[-1]"}));
    EXPECT_FALSE(desk_exists(h, kLink));
    EXPECT_EQ(desk_agent_pid(h), pid);
}

// ---- a terminal program as the client

TEST_F(Endpoint, TerminalProgramIsAnswered) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(hang_up_and_wait());
    int to_program[2];
    int from_program[2];
    ASSERT_EQ(pipe2(to_program, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(from_program, O_CLOEXEC), 0);
    desk_program program;
    program.argv = {"/usr/bin/socat", "-", std::string(kLink) + ",raw,echo=0"};
    program.fds[0] = to_program[0];
    program.fds[1] = from_program[1];
    desk_child socat;
    ASSERT_TRUE(desk_start(h, program, &socat)) << desk_error();
    close(to_program[0]);
    close(from_program[1]);

    ASSERT_EQ(write(to_program[1], "AT\r", 3), 3);
    channel = from_program[0];
    EXPECT_EQ(receive(), kOk);
    ASSERT_EQ(write(to_program[1], "SA+KERNEL_LOG?\r", 15), 15);
    EXPECT_EQ(receive(), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    close(to_program[1]);
    EXPECT_EQ(desk_wait(h, &socat, 10000), 0);
}
