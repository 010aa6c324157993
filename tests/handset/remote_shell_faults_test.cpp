// The remote shell with missing or wrong files, and clients that violate the protocol.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/remote_shell.h"
#include "tests/support/skip.h"

typedef std::vector<std::string> lines;

class RemoteFaults : public RemoteShellTest {
  protected:
    // An agent that init does not start again.
    void boot_without_agent(desk_options options = quiet_options()) {
        options.agent = false;
        boot_only(options);
    }
    void move(const std::string &from, const std::string &to) {
        skip_in_place("/dev/ptmx of its own");
        ASSERT_EQ(run({"/system/bin/mv", from, to}).status, 0);
    }
};

// ---- clients ----

TEST_F(RemoteFaults, AClientThatHangsUpInsteadOfAcknowledgingDisturbsNobody) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string number = listener_fd();
    const std::string path = request("shell:echo never");
    EXPECT_TRUE(desk_exists(h, path));
    ASSERT_NO_FATAL_FAILURE(leave_listener());
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(
        in_order(platform_lines(), {"open_ptm_connection read size[-1]", "sa_listener_loop fd_pair[" + number + "]",
                                    "close_ptm()", "close_ptm fd[" + number + "] symname[/dev/ttysa1]"}));
    EXPECT_TRUE(in_order(file_lines(),
                         {"open_ptm_connection read size[-1]", "open_ptm_connection read errno[5-Input/output error]",
                          "sa_listener_loop fd_pair[-1]"}));
    EXPECT_EQ(count_lines(platform_lines(), "handle_service()"), 0);
    EXPECT_EQ(last_child(), -1);
    ASSERT_NO_FATAL_FAILURE(open_listener());
    EXPECT_EQ(run_remote("echo next"), "next\n");
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteFaults, AClientThatNeverReadsThePathDisturbsNobody) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < 5; round++) {
        write_all(listener, "shell:echo never");
        ASSERT_TRUE(
            desk_until([&] { return count_lines(file_lines(), "open_ptm_connection write size[10]") > round; }));
        ASSERT_NO_FATAL_FAILURE(leave_listener());
        ASSERT_NO_FATAL_FAILURE(open_listener());
    }
    EXPECT_EQ(run_remote("echo next"), "next\n");
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteFaults, AClientThatNeverOpensItsTerminalLosesItsShellOnly) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    request("shell:echo unheard");
    acknowledge();
    EXPECT_TRUE(desk_until([&] { return last_child() > 0; }));
    EXPECT_TRUE(wait_reaped(last_child()));
    EXPECT_EQ(run_remote("echo next"), "next\n");
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteFaults, FiftyClientsComeAndGoWithoutADescriptorGained) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < 50; round++) {
        ASSERT_NO_FATAL_FAILURE(leave_listener());
        ASSERT_NO_FATAL_FAILURE(open_listener());
    }
    EXPECT_EQ(run_remote("echo next"), "next\n");
    EXPECT_TRUE(holds_nothing_more());
}

// ---- what is published ----

TEST_F(RemoteFaults, TerminalsBelongToTheTestersAndAreRaw) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    std::string path;
    const int fd = connect("shell:cat", &path);
    EXPECT_EQ(desk_owner(h, "/dev/ttysa1"), "0660 1000:1001");
    EXPECT_EQ(desk_owner(h, path), "0660 1000:1001");
    struct stat st;
    ASSERT_TRUE(desk_lstat(h, "/dev/ttysa1", &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    for (const int terminal : {fd, listener}) {
        struct termios attr;
        ASSERT_EQ(tcgetattr(terminal, &attr), 0);
        EXPECT_EQ(attr.c_iflag, 0u);
        EXPECT_EQ(attr.c_oflag & 0x3B, 0u);
        EXPECT_EQ(attr.c_lflag & (ISIG | ICANON | ECHO | ECHOE), 0u);
    }
    close(fd);
}

TEST_F(RemoteFaults, AStaleLinkIsReplaced) {
    desk_options options = quiet_options();
    options.prepare = [](desk *handset) {
        desk_program program;
        program.argv = {"/system/bin/ln", "-s", "/dev/pts/77", "/dev/ttysa1"};
        return desk_run(handset, program).status == 0;
    };
    ASSERT_NO_FATAL_FAILURE(come_up(options));
    EXPECT_NE(desk_link_target(h, "/dev/ttysa1"), "/dev/pts/77");
    EXPECT_EQ(run_remote("echo here"), "here\n");
}

TEST_F(RemoteFaults, AFileInTheLinksPlaceIsReplaced) {
    desk_options options = quiet_options();
    options.prepare = [](desk *handset) { return desk_write_file(handset, "/dev/ttysa1", "left over"); };
    ASSERT_NO_FATAL_FAILURE(come_up(options));
    EXPECT_EQ(run_remote("echo here"), "here\n");
}

TEST_F(RemoteFaults, ADirectoryInTheLinksPlaceEndsTheAgentInOrder) {
    desk_options options = quiet_options();
    options.prepare = [](desk *handset) { return desk_make_dir(handset, "/dev/ttysa1"); };
    ASSERT_NO_FATAL_FAILURE(boot_without_agent(options));
    desk_child child = launch();
    EXPECT_EQ(desk_wait(h, &child, 20000), 0);
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(in_order(
        process_lines(child.pid),
        {"open_ptm symname[/dev/ttysa1]", "open_ptm ret[-1]", "open_ptm symlink error[17-File exists]",
         "sa_listener_loop fd[-1]", "close_ptm()", "close_ptm fd[-1] symname[/dev/ttysa1]",
         "sa_listener_loop exit loop", "main sa_deinit_resource", "sa_deinit_resource()", "sa_deinit_resource exit"}));
    EXPECT_TRUE(in_order(file_lines(), {"open_ptm symlink errno[17-File exists]", "sa_listener_loop fd[-1]",
                                        "sa_listener_loop exit", "main sa_listener_loop exit", "main exit"}));
    EXPECT_FALSE(desk_exists(h, "/dev/ttyCMD0")) << "the command channel is torn down";
}

// ---- no pseudo-terminals ----

TEST_F(RemoteFaults, WithoutTerminalsAtTheStartTheAgentEndsInOrder) {
    desk_options options = quiet_options();
    options.absent = {"/dev/ptmx"};
    ASSERT_NO_FATAL_FAILURE(boot_without_agent(options));
    desk_child child = launch();
    EXPECT_EQ(desk_wait(h, &child, 20000), 0);
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(in_order(process_lines(child.pid),
                         {"sa_listener_loop()", "open_ptm()", "open_ptm symname[/dev/ttysa1]", "open_ptm ptm[-1]",
                          "open_ptm open error[2-No such file or directory]", "sa_listener_loop fd[-1]",
                          "close_ptm fd[-1] symname[/dev/ttysa1]", "sa_listener_loop exit loop",
                          "main sa_deinit_resource", "sa_deinit_resource()", "sa_deinit_resource exit"}));
    EXPECT_TRUE(in_order(file_lines(),
                         {"open_ptm ptm[-1]", "open_ptm open errno[2-No such file or directory]",
                          "sa_listener_loop fd[-1]", "sa_listener_loop exit", "main sa_listener_loop exit", "main exit",
                          "sa_handle_deinit exit ret_val[-1]", "sa_deinit_resource exit ret_val[-1]"}));
}

TEST_F(RemoteFaults, WithoutATerminalForAConnectionTheRequestIsDropped) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const std::string number = listener_fd();
    ASSERT_NO_FATAL_FAILURE(move("/dev/ptmx", "/dev/away"));
    write_all(listener, "shell:echo never");
    ASSERT_TRUE(wait_file_line("sa_listener_loop fd_pair[-1]"));
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(in_order(platform_lines(),
                         {"open_ptm open error[2-No such file or directory]", "open_ptm_connection fd[-1]",
                          "open_ptm_connection open_ptm failed", "sa_listener_loop fd_pair[" + number + "]"}));
    EXPECT_TRUE(
        in_order(file_lines(),
                 {"open_ptm open errno[2-No such file or directory]", "open_ptm_connection fd[-1]",
                  "open_ptm_connection open_ptm errno[2-No such file or directory]", "sa_listener_loop fd_pair[-1]"}));
    ASSERT_NO_FATAL_FAILURE(move("/dev/away", "/dev/ptmx"));
    EXPECT_EQ(run_remote("echo next"), "next\n") << "nothing was announced for the one before";
    EXPECT_TRUE(holds_nothing_more());
}

TEST_F(RemoteFaults, WithoutATerminalForAFreshListenerTheAgentEndsInOrder) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    desk_child child = launch();
    ASSERT_TRUE(wait_listening(child.pid));
    ASSERT_NO_FATAL_FAILURE(open_listener());
    ASSERT_NO_FATAL_FAILURE(move("/dev/ptmx", "/dev/away"));
    ASSERT_NO_FATAL_FAILURE(leave_listener());
    EXPECT_EQ(desk_wait(h, &child, 20000), 0);
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_TRUE(in_order(process_lines(child.pid),
                         {"sa_listener_loop reopen fd[-1]", "close_ptm fd[-1] symname[/dev/ttysa1]",
                          "sa_listener_loop exit loop", "main sa_deinit_resource", "sa_deinit_resource exit"}));
    EXPECT_TRUE(in_order(file_lines(), {"sa_listener_loop reopen fd[-1]", "sa_listener_loop exit",
                                        "main sa_listener_loop exit", "main exit"}));
    EXPECT_EQ(desk_link_target(h, "/dev/ttysa1"), "");
    EXPECT_EQ(desk_link_target(h, "/dev/ttyCMD0"), "");
}

// ---- no shell ----

TEST_F(RemoteFaults, WithoutAShellTheClientReadsWhy) {
    desk_options options = quiet_options();
    options.absent = {"/system/bin/sh"};
    ASSERT_NO_FATAL_FAILURE(come_up(options));
    EXPECT_EQ(run_remote("echo never"),
              "create_subprocess execl(/system/bin/sh) errno[2-No such file or directory] -\n");
    const pid_t child = last_child();
    ASSERT_TRUE(wait_reaped(child));
    ASSERT_NO_FATAL_FAILURE(settle());
    EXPECT_EQ(process_lines(child).back(),
              "create_subprocess execl(/system/bin/sh) ret_val[-1] error[2-No such file or directory]");
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess execl errno[2-No such file or directory]"), 1);
    EXPECT_EQ(count_lines(platform_lines(), "subproc_waiter_service Exit code[255]"), 1);
    EXPECT_TRUE(holds_nothing_more());
}
