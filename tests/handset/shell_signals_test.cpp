// Shell calls on two threads at a time, with a C library that saves and restores the actions of SIGINT and SIGQUIT without
// a lock: afterwards the agent handles SIGINT, and SIGQUIT has its action from the start.
#include <signal.h>

#include "tests/support/collectors.h"

static const char kGo[] = "/data/go";
static const char kAnswer[] = "/data/answer";

class ShellSignals : public CollectorTest {
  protected:
    // Boots a handset in which the start of an agent waits in the first command that saves a panic record, until kGo
    // exists.
    void boot_waiting() {
        desk_options options = quiet_options();
        options.agent = false;
        options.files.push_back({"/data/dontpanic/apanic_console", "a record\n", "", 0640, 0, 0});
        options.files.push_back(script(
            "/system/bin/cp", "> /data/copying\nwhile [ ! -e " + std::string(kGo) + " ]; do sleep 0.02; done\n"));
        preload(&options, "unlocked_system");
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
    }
    // A shell call of the command thread begins during one of the main thread, and outlives it and all that follow.
    void overlap() {
        ASSERT_TRUE(desk_wait_path(h, "/data/copying"));
        open_channel();
        send("AT SA+SYSTEM=\"> /data/asked; while [ ! -e " + std::string(kAnswer) + " ]; do sleep 0.02; done\"\r");
        ASSERT_TRUE(desk_wait_path(h, "/data/asked"));
        ASSERT_TRUE(desk_write_file(h, kGo, ""));
        ASSERT_TRUE(wait_listening(agent.pid)) << "the start must not wait for the host's command";
        ASSERT_TRUE(desk_write_file(h, kAnswer, ""));
        ASSERT_EQ(receive(), kOk);
    }
    bool is_ignored(int signo) {
        const unsigned long long mask = std::stoull(status(agent.pid, "SigIgn"), nullptr, 16);
        return (mask >> (signo - 1) & 1) != 0;
    }

    desk_child agent;
};

TEST_F(ShellSignals, SigintEndsTheAgentAfterOverlappingCalls) {
    ASSERT_NO_FATAL_FAILURE(boot_waiting());
    agent = launch();
    ASSERT_NO_FATAL_FAILURE(overlap());
    EXPECT_FALSE(is_ignored(SIGINT));
    EXPECT_FALSE(is_ignored(SIGQUIT));
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGINT));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(count_lines(file_lines(), "signal_treatment signal[2-SIGINT]"), 1);
}

TEST_F(ShellSignals, SigquitStaysIgnoredWhenItWasAtTheStart) {
    ASSERT_NO_FATAL_FAILURE(boot_waiting());
    desk_program program;
    program.argv = {"/usr/bin/bash", "-c", "trap '' QUIT; exec /system/bin/zr-qel-sa"};
    program.umask = 077;
    ASSERT_TRUE(desk_start(h, program, &agent)) << desk_error();
    ASSERT_NO_FATAL_FAILURE(overlap());
    EXPECT_FALSE(is_ignored(SIGINT));
    EXPECT_TRUE(is_ignored(SIGQUIT));
}
