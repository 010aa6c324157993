// A packet-capture library that hangs while it is loaded, used or unloaded: the agent can still be ended.
#include <signal.h>
#include <unistd.h>

#include "tests/support/collectors.h"

static const char kInstalled[] = "/system/xbin/tcpdump";
static const char kProvider[] = "/system/lib/libexport_tcpdump.so";
static const char kHang[] = "/dev/.desk/hang";
static const char kHanging[] = "/dev/.desk/hanging";

// Where it hangs. An entry that hangs leaves the library loaded, and its destructor hangs as well.
struct hang_case {
    const char *name;
    const char *first;
    const char *all;
};

static void PrintTo(const hang_case &row, std::ostream *out) {
    *out << row.name;
}

class HangingProvider : public CollectorTest, public ::testing::WithParamInterface<hang_case> {
  protected:
    // Starts an agent that asks the library for tcpdump at its start, on the main thread.
    void hang_main_thread() {
        ASSERT_NO_FATAL_FAILURE(boot_with_provider(log_property({{2, "5,8192"}})));
        agent = launch();
        ASSERT_TRUE(desk_wait_text(h, kHanging, GetParam().first));
    }
    // Starts one that asks later, on the command thread.
    void hang_command_thread() {
        ASSERT_NO_FATAL_FAILURE(boot_with_provider(log_property({})));
        agent = launch();
        ASSERT_TRUE(wait_listening(agent.pid));
        ASSERT_EQ(desk_set_property(h, kLogProperty, log_property({{2, "5,8192"}})), 0);
        open_channel();
        send("AT SA+DELETE_LOG\r");
        ASSERT_TRUE(desk_wait_text(h, kHanging, GetParam().first));
    }

    desk_child agent;

  private:
    void boot_with_provider(const std::string &property) {
        desk_options options = with_log_property(property);
        options.agent = false;
        options.absent.push_back(kInstalled);
        options.files.push_back(stand_in("hanging_provider", kProvider));
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        ASSERT_TRUE(desk_write_file(h, kHang, GetParam().all));
    }
};

TEST_P(HangingProvider, OnTheMainThreadLetsSigtermEndTheAgent) {
    ASSERT_NO_FATAL_FAILURE(hang_main_thread());
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(count_lines(file_lines(), "signal_treatment exit"), 1);
}

TEST_P(HangingProvider, OnTheCommandThreadLetsSigtermEndTheAgent) {
    ASSERT_NO_FATAL_FAILURE(hang_command_thread());
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(count_lines(file_lines(), "signal_treatment exit"), 1);
    EXPECT_FALSE(desk_exists(h, "/dev/ttyCMD0"));
}

TEST_P(HangingProvider, OnTheCommandThreadLetsHostKillEndTheAgent) {
    ASSERT_NO_FATAL_FAILURE(hang_command_thread());
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_GE(listener, 0) << desk_error();
    ASSERT_EQ(write(listener, "host:kill", 9), 9);
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    close(listener);
    EXPECT_EQ(count_lines(file_lines(), "sa_listener_loop host:kill exit"), 1);
}

INSTANTIATE_TEST_SUITE_P(In, HangingProvider,
                         ::testing::Values(hang_case{"Constructor", "constructor", "constructor"},
                                           hang_case{"Entry", "entry", "entry destructor"},
                                           hang_case{"Destructor", "destructor", "destructor"}),
                         [](const auto &row) { return row.param.name; });
