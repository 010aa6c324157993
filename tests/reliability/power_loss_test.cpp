// The agent is killed at random times, its files are damaged as by a loss of power, and it is started again. It must always
// serve both channels; stale names and half-written files must not prevent that.
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "tests/reliability/stress.h"
#include "tests/support/commands.h"

static const char kList[] = "/data/zr-qel-sa/auto-start.lst";
static const char kSettings[] = "/data/zr-qel-sa.set";
static const char kPidFile[] = "/tmp/zr-qel-sa.pid";
static const char kLink[] = "/dev/ttyCMD0";
static const char kListener[] = "/dev/ttysa1";

static const char *const kRequests[] = {
    "AT\r",
    "AT SA+AUTO_START_SERVICE=\"sister-a\",1\r",
    "AT SA+AUTO_START_SERVICE=\"sister-a\",0\r",
    "AT SA+AUTO_START_SERVICE=\"sister-b\",1\r",
    "AT SA+KERNEL_LOG=1\r",
    "AT SA+DMESG_LOG=1\r",
    "AT SA+SYSTEM=\"true\"\r",
    "AT SA+SAVE_LOG\r",
    "AT SA+DELETE_LOG\r",
};

class PowerLoss : public CommandTest {
  protected:
    void boot_stress() {
        desk_options options = with_log_property(log_property({{2, "2,100"}, {3, "2,100"}, {4, "2,100"}}));
        options.agent = false;
        add_quick_programs(&options);
        boot_only(options);
    }

    // Comes up, and serves both channels. The first line tells that the file is this agent's.
    void expect_service() {
        ASSERT_TRUE(desk_wait_text(h, kSaLog, "]main pid[" + std::to_string(agent) + "]", kStressLimit))
            << evidence(h, agent);
        ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_listener_loop fd[", kStressLimit)) << evidence(h, agent);
        open_channel();
        ASSERT_EQ(ask("AT\r"), kOk) << evidence(h, agent);
        const std::string listed = command("+AUTO_START_SERVICE=\"sister-a\",2");
        ASSERT_EQ(listed.compare(0, 22, "\r\nAUTO_START_SERVICE: "), 0) << listed << evidence(h, agent);
        const int listener = desk_open_tty(h, kListener);
        ASSERT_GE(listener, 0) << desk_error() << evidence(h, agent);
        close(listener);
        services++;
    }

    void start() {
        child = launch();
        agent = child.pid;
    }

    // The agent's end without a word, and that of all that it has started.
    void kill_agent() {
        ASSERT_TRUE(desk_kill(h, agent, SIGKILL));
        ASSERT_EQ(desk_wait(h, &child, kStressLimit), SIGKILL);
        hang_up();
        ASSERT_TRUE(desk_until([&] { return kill_all("logcat") + kill_all("tcpdump") + kill_all("zr-qel-sa") == 0; },
                               kStressLimit));
    }

    size_t kill_all(const std::string &name) {
        const std::vector<pid_t> pids = desk_pids(h, name);
        for (const pid_t pid : pids) {
            desk_kill(h, pid, SIGKILL);
        }
        return pids.size();
    }

    void replace_by_link(const std::string &path, const std::string &target) {
        ASSERT_TRUE(desk_remove(h, path));
        ASSERT_EQ(run({"ln", "-s", target, path}).status, 0);
    }

    // Only a beginning of the file has reached the disk, or blocks of zeros in its place, or more than was asked for.
    void damage_file(const char *path) {
        std::string text = desk_file_text(h, path);
        switch (dice.below(4)) {
            case 0: text.resize(static_cast<size_t>(dice.below(static_cast<int>(text.size()) + 1))); break;
            case 1: text.assign(text.size(), '\0'); break;
            case 2: text += text + std::string(1000, '\xff'); break;
            default: ASSERT_TRUE(desk_remove(h, path)); return;
        }
        ASSERT_TRUE(desk_write_file(h, path, text, 0600));
    }

    void damage_list() {
        ASSERT_TRUE(desk_make_dir(h, "/data/zr-qel-sa", 0700));  // the end may have come before the agent made it
        damage_file(kList);
    }

    void damage_something() {
        switch (dice.below(9)) {
            case 0: replace_by_link(kLink, "/dev/pts/99"); break;
            case 1: replace_by_link(kListener, kListener); break;
            case 2: ASSERT_TRUE(desk_remove(h, kLink) && desk_write_file(h, kLink, "no terminal")); break;
            case 3: damage_file(kPidFile); break;
            case 4: damage_list(); break;
            case 5: damage_file(kSettings); break;
            case 6: damage_file(kSaLog); break;
            case 7: damage_file("/data/local/log/kmsg.log"); break;
            default: ASSERT_TRUE(desk_remove(h, "/data/zr-qel-sa")); break;
        }
    }

    // The agent has come up and something is going on: the end comes at a random moment of it.
    void provoke() {
        ASSERT_NO_FATAL_FAILURE(expect_service());
        const int count = dice.below(3);
        for (int request = 0; request < count; request++) {
            ask(kRequests[dice.below(sizeof(kRequests) / sizeof(*kRequests))], 30000);
        }
        send(kRequests[dice.below(sizeof(kRequests) / sizeof(*kRequests))]);
        dice.wait_up_to(100000);
    }

    // Every third start comes to its end at a random moment, whatever that moment finds.
    bool is_cut_short() {
        if (!dice.one_in(3)) {
            return false;
        }
        dice.wait_up_to(400000);
        cut_short++;
        return true;
    }

    // The handset without power, and its next boot.
    void reboot() {
        hang_up();
        close(child.wait_fd);
        ASSERT_TRUE(desk_reboot(h, true)) << desk_error();
        ASSERT_TRUE(desk_remove(h, kSaLog));  // pids begin anew: its first line could be taken for the next agent's
    }

    void tell(int rounds) {
        printf("%d losses, %d more in the middle of a start; %d services seen; %s\n", rounds, cut_short, services,
               to_text(holdings_of(h, agent)).c_str());
    }

    int services = 0;  // that have been seen to serve
    int cut_short = 0;
    chance dice;
    desk_child child;
    pid_t agent = -1;
};

TEST_F(PowerLoss, KilledAtRandomItAlwaysComesUpAgain) {
    const int rounds = stress_rounds(12);
    ASSERT_NO_FATAL_FAILURE(boot_stress());
    ASSERT_TRUE(desk_make_dir(h, "/data/log/SystemLog"));
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(start());
        if (is_cut_short()) {
            ASSERT_NO_FATAL_FAILURE(kill_agent());
            ASSERT_NO_FATAL_FAILURE(start());
        }
        ASSERT_NO_FATAL_FAILURE(provoke());
        ASSERT_NO_FATAL_FAILURE(kill_agent());
        for (int count = dice.below(4); count > 0; count--) {
            ASSERT_NO_FATAL_FAILURE(damage_something());
        }
        ASSERT_TRUE(desk_remove(h, "/storage/real_sd/logs"));
    }
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_NO_FATAL_FAILURE(expect_service());
    EXPECT_EQ(services, rounds + 1) << "one in each round, and one behind the last";
    tell(rounds);
}

// The same with the whole handset, of which only /data remains.
TEST_F(PowerLoss, OfTheWholeHandset) {
    const int rounds = stress_rounds(4);
    ASSERT_NO_FATAL_FAILURE(boot_stress());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(start());
        if (is_cut_short()) {
            ASSERT_NO_FATAL_FAILURE(reboot());
            ASSERT_NO_FATAL_FAILURE(start());
        }
        ASSERT_NO_FATAL_FAILURE(provoke());
        ASSERT_NO_FATAL_FAILURE(dice.one_in(2) ? damage_list() : damage_file(kSettings));
        ASSERT_NO_FATAL_FAILURE(reboot());
    }
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_NO_FATAL_FAILURE(expect_service());
    EXPECT_EQ(services, rounds + 1) << "one in each round, and one behind the last";
    tell(rounds);
}
