// A reset during a start, which init refuses or does not answer: the agent closes nothing that it has not opened, the start
// continues, and the channels work.
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/collectors.h"
#include "tests/support/remote_shell.h"

static const char kGo[] = "/data/go";
static const char kLast[] = "signal_treatment PUB_UTIL_RESET_PROCESS_SIGNAL exit";

// Where the start waits, and what init does with the request to stop the service.
struct reset_case {
    const char *name;
    bool in_auto_start;  // before the channel's record is prepared, else after
    bool is_refused;     // else init takes the request and does nothing
};

static void PrintTo(const reset_case &row, std::ostream *out) {
    *out << row.name;
}

class ResetOfAStart : public RemoteShellTest {
  protected:
    void expect_remote_shell() {
        open_listener();
        const int fd = connect("shell:cat");
        write_all(fd, "here\n");
        EXPECT_EQ(read_until(fd, "here\n"), "here\n");
        close(fd);
        close(listener);
        listener = -1;
    }
};

class EarlyReset : public ResetOfAStart, public ::testing::WithParamInterface<reset_case> {
  protected:
    // Boots a handset in which the start of an agent waits until kGo exists.
    void boot_waiting() {
        const std::string wait = "> /data/waiting\nwhile [ ! -e " + std::string(kGo) + " ]; do sleep 0.02; done\n";
        desk_options options = with_log_property(log_property({{2, "5,8192"}}));
        options.agent = false;
        if (GetParam().is_refused) {
            options.absent.push_back("/system/etc/init/zr-qel-sa.rc");
        }
        if (GetParam().in_auto_start) {
            const std::string list = std::string("zr-elog").append(400 - 7, '\0');
            options.files.push_back({"/data/zr-qel-sa/auto-start.lst", list, "", 0600, 0, 0});
            options.files.push_back(script("/system/bin/setprop", wait));
        } else {
            options.absent.push_back("/system/xbin/tcpdump");
            options.files.push_back(stand_in("hanging_provider", "/system/lib/libexport_tcpdump.so"));
        }
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        ASSERT_TRUE(desk_write_file(h, "/dev/.desk/hang", "entry"));
    }
    void wait_in_start() {
        ASSERT_TRUE(desk_wait_path(h, GetParam().in_auto_start ? "/data/waiting" : "/dev/.desk/hanging"));
    }
    void go_on() {
        ASSERT_TRUE(desk_write_file(h, kGo, ""));
        ASSERT_TRUE(desk_remove(h, "/dev/.desk/hang"));
    }
};

TEST_P(EarlyReset, LeavesAStartThatAnswers) {
    ASSERT_NO_FATAL_FAILURE(boot_waiting());
    desk_child child = launch();
    ASSERT_NO_FATAL_FAILURE(wait_in_start());
    const std::string input = descriptors(child.pid)[0];
    ASSERT_TRUE(desk_kill(h, child.pid, SIGUSR2));
    ASSERT_TRUE(wait_file_line(kLast));
    EXPECT_EQ(descriptors(child.pid)[0], input) << "what was never opened is not closed";
    ASSERT_NO_FATAL_FAILURE(go_on());
    ASSERT_TRUE(wait_listening(child.pid));
    ASSERT_NO_FATAL_FAILURE(open_channel());
    EXPECT_EQ(ask("AT\r"), kOk);
    ASSERT_NO_FATAL_FAILURE(expect_remote_shell());
    ASSERT_TRUE(desk_kill(h, child.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &child, 10000), 0);
    EXPECT_FALSE(desk_exists(h, "/dev/ttyCMD0"));
}

INSTANTIATE_TEST_SUITE_P(By, EarlyReset,
                         ::testing::Values(reset_case{"RefusedInTheAutoStart", true, true},
                                           reset_case{"UnansweredInTheAutoStart", true, false},
                                           reset_case{"RefusedInACollectorsStart", false, true},
                                           reset_case{"UnansweredInACollectorsStart", false, false}),
                         [](const auto &row) { return row.param.name; });

// Behind every line of the start, from the moment that the handlers are there: init refuses the stop. A reset closes a
// channel that is open by then, and no other.
TEST_F(ResetOfAStart, ThatInitRefusesAtAnyMomentLetsTheStartGoOn) {
    desk_options options = quiet_options();
    options.absent = {"/system/etc/init/zr-qel-sa.rc"};
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    desk_child model = launch();
    ASSERT_TRUE(wait_listening(model.pid));
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
    const std::vector<std::string> whole = file_lines();
    const auto configured = std::find(whole.begin(), whole.end(), "main sa_cfg_init ret_val[0]");
    ASSERT_NE(configured, whole.end());
    const auto first = static_cast<size_t>(configured - whole.begin()) + 1;
    ASSERT_TRUE(desk_kill(h, model.pid, SIGTERM));
    ASSERT_EQ(desk_wait(h, &model, 10000), 0);
    for (size_t count = first; count <= whole.size(); count++) {
        SCOPED_TRACE("reset behind line " + std::to_string(count) + ": " + whole[count - 1]);
        ASSERT_TRUE(desk_remove(h, kSaLog));
        // A child that has not become its program yet still bears the agent's name.
        ASSERT_TRUE(desk_until([&] { return desk_pids(h, "zr-qel-sa").empty(); }));
        desk_child young = launch();
        ASSERT_TRUE(desk_until([&] { return file_lines().size() >= count; }));
        const std::string input = descriptors(young.pid)[0];
        ASSERT_TRUE(desk_kill(h, young.pid, SIGUSR2));
        ASSERT_TRUE(wait_file_line(kLast));
        ASSERT_TRUE(wait_listening(young.pid));
        EXPECT_EQ(descriptors(young.pid)[0], input);
        ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop param[(nil)]"));
        if (in_order(file_lines(), {kLast, "sa_handle_read_cmd_loop param[(nil)]"})) {
            ASSERT_NO_FATAL_FAILURE(open_channel());
            EXPECT_EQ(ask("AT\r"), kOk);
            hang_up();
        }
        ASSERT_NO_FATAL_FAILURE(expect_remote_shell());
        ASSERT_TRUE(desk_kill(h, young.pid, SIGTERM));
        ASSERT_EQ(desk_wait(h, &young, 10000), 0);
    }
}
