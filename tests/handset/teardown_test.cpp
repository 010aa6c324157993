// A teardown during a request: the answer is discarded and never written to a file that has reused the channel's
// descriptor number.
#include <signal.h>
#include <unistd.h>

#include "tests/support/remote_shell.h"

static const char kWaitingCommand[] = "while [ ! -e /data/go ]; do sleep 0.1; done";

class Teardown : public RemoteShellTest {};

TEST_F(Teardown, AnAnswerThatComesTooLateReachesNobody) {
    desk_options options = quiet_options();
    options.agent = false;  // init has nothing to stop: the agent lives on
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    desk_child child = launch();
    ASSERT_TRUE(wait_listening(child.pid));
    open_channel();
    send("AT SA+SYSTEM=\"" + std::string(kWaitingCommand) + "\"\r");
    ASSERT_TRUE(wait_file_line("do_sys_command cmd[" + std::string(kWaitingCommand) + "]"));
    ASSERT_TRUE(desk_kill(h, child.pid, SIGUSR2));
    ASSERT_TRUE(wait_file_line("signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit"));

    open_listener();
    const int fd = connect("shell:cat");  // the next descriptors that the agent opens
    ASSERT_TRUE(desk_write_file(h, "/data/go", ""));
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-1]"));
    write_all(fd, "mine\n");
    EXPECT_EQ(read_until(fd, "mine\n"), "mine\n");
    close(fd);
}

// A name that cannot be removed keeps the master open, also over many teardowns: each takes the number of the one before.
TEST_F(Teardown, ManyThatCannotCloseTheChannelGainNoDescriptor) {
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    desk_child child = launch();
    ASSERT_TRUE(wait_listening(child.pid));
    ASSERT_TRUE(desk_remove(h, "/dev/ttyCMD0") && desk_make_dir(h, "/dev/ttyCMD0"));
    size_t count = 0;
    for (int round = 1; round <= 4; round++) {
        ASSERT_TRUE(desk_kill(h, child.pid, SIGUSR2));
        ASSERT_TRUE(desk_until(
            [&] { return count_lines(file_lines(), "signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit") == round; }));
        count = round == 1 ? descriptors(child.pid).size() : count;
        EXPECT_EQ(descriptors(child.pid).size(), count) << "after teardown " << round;
    }
}
