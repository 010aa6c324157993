// Misbehaving children: collectors that exit, crash, ignore signals or leave children; remote shells killed at random; a
// reused process id. The agent reaps its own children and affects no other process.
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "handset/desk/in_place.h"
#include "tests/reliability/stress.h"
#include "tests/support/collectors.h"
#include "tests/support/remote_shell.h"

// ---- collectors

static const char kManners[] = "/system/etc/manners";

// Replaces logcat and tcpdump; a file selects its behaviour.
static const char kCollector[] =
    "case $(cat /system/etc/manners) in\n"
    "ends) exit 1 ;;\n"
    "crashes) kill -SEGV $$ ;;\n"
    "chatters) while :; do echo noise; echo noise >&2; done ;;\n"
    "closes) exec <&- >&- 2>&-; sleep 1000 ;;\n"
    "abandons) (sleep 0.3 &) ; exit 0 ;;\n"
    "stops) kill -STOP $$ ;;\n"
    "deaf) trap '' HUP INT QUIT TERM USR1 USR2; while :; do sleep 1; done ;;\n"
    "esac\n";

struct manners {
    const char *name;
    int stay;  // how many of four such collectors are there until they are killed
};
static const manners kManyManners[] = {{"ends", 0},     {"crashes", 0}, {"chatters", 4}, {"closes", 4},
                                       {"abandons", 0}, {"stops", 4},   {"deaf", 4}};

class CollectorStress : public CollectorTest {
  protected:
    void TearDown() override {
        end();  // a failure has told the end of the log already
    }

    void come_up() {
        desk_options options = with_log_property(log_property({{2, "1,1"}, {4, "1,1"}, {5, "1,1"}, {6, "1,1"}}));
        options.files.push_back(script("/system/bin/logcat", kCollector));
        options.files.push_back(script("/system/xbin/tcpdump", kCollector));
        options.files.push_back({kManners, "ends", "", 0644, 0, 0});
        ASSERT_NO_FATAL_FAILURE(boot(options));
        agent = desk_agent_pid(h);
        ASSERT_TRUE(desk_until([&] { return threads(agent) == 2; }, kStressLimit)) << "main thread and command thread";
        before = holdings_of(h, agent);
    }

    // Each child that stays has a waiter and a descriptor; beyond that the agent holds what it held before.
    ::testing::AssertionResult has_children(int count) {
        holdings now;
        const bool is_so = desk_until(
            [&] {
                now = holdings_of(h, agent);
                return now.children == count && now.zombies == 0 && now.threads == before.threads + count &&
                       now.descriptors == before.descriptors + count;
            },
            kStressLimit);
        if (is_so && desk_agent_pid(h) == agent) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << to_text(now) << ", before: " << to_text(before) << evidence(h, agent);
    }

    // Starts a program of init's that gets this free pid. The kernel gives out the numbers behind the last one, which can
    // be set through the machine's file by whoever is in the handset's pid namespace; a process that comes in between
    // makes it another try.
    desk_child start_with_pid(pid_t pid) {
        const std::string set_last = "nsenter --pid=/proc/" + std::to_string(desk_init_pid(h)) +
                                     "/ns/pid sh -c 'echo " + std::to_string(pid - 1) +
                                     " > /proc/sys/kernel/ns_last_pid'";
        desk_program program;
        program.argv = {"sleep", "1000"};
        desk_child child;
        for (int tries = 0; tries < 50; tries++) {
            EXPECT_EQ(system(set_last.c_str()), 0);
            EXPECT_TRUE(desk_start(h, program, &child)) << desk_error();
            if (child.pid == pid) {
                break;
            }
            desk_kill(h, child.pid, SIGKILL);
            desk_wait(h, &child, kStressLimit);
        }
        return child;
    }

    chance dice;
    pid_t agent = -1;
    holdings before;
};

TEST_F(CollectorStress, BadMannersAreSurvivedAndClearedAway) {
    const int rounds = stress_rounds(6);
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < rounds; round++) {
        const manners &one = kManyManners[dice.below(sizeof(kManyManners) / sizeof(*kManyManners))];
        SCOPED_TRACE("round " + std::to_string(round) + ": " + one.name);
        ASSERT_TRUE(desk_write_file(h, kManners, one.name));
        ASSERT_EQ(command("+DELETE_LOG"), kOk) << evidence(h, agent);
        if (dice.one_in(2)) {
            ASSERT_TRUE(has_children(one.stay));
        }
    }
    ASSERT_TRUE(desk_write_file(h, kManners, "ends"));
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_TRUE(has_children(0));
    printf("%d restarts of four collectors; %s\n", rounds, to_text(holdings_of(h, agent)).c_str());
}

// The process id of a dead collector is reused by a process that is not the agent's child.
TEST_F(CollectorStress, APidThatHasGoneToSomebodyElseIsSpared) {
    if (desk_in_place()) {
        GTEST_SKIP() << "in place: no pids of its own";
    }
    const int rounds = stress_rounds(3);
    int spared = 0;
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_TRUE(has_children(0));
        const pid_t dead =
            static_cast<pid_t>(stoi(rests(file_lines(), "start_logcat_service_ex sa_create_subproc_thread[").back()));
        desk_child other = start_with_pid(dead);
        ASSERT_EQ(other.pid, dead) << "the pid could not be given away";
        ASSERT_TRUE(desk_remove(h, kSaLog));
        ASSERT_EQ(command("+DELETE_LOG"), kOk);
        EXPECT_EQ(count_lines(file_lines(),
                              "sa_kill_all_child_service_ex LOGCAT kill[" + std::to_string(dead) + "] ret_val[-1]"),
                  1);
        EXPECT_EQ(desk_wait(h, &other, 0), -1) << "it was killed";
        ASSERT_TRUE(desk_kill(h, other.pid, SIGKILL));
        EXPECT_EQ(desk_wait(h, &other, kStressLimit), SIGKILL);
        spared++;
    }
    printf("%d pids given to others, all spared\n", spared);
}

// ---- remote shells

static const char *const kShells[] = {
    "exec sleep 1000",
    "while :; do echo noise; done",
    "exec cat",
    "(sleep 1000 &); exec sleep 1000",
    "",  // interactive
};

class ShellStress : public RemoteShellTest {
  protected:
    void TearDown() override {
        if (listener >= 0) {
            close(listener);
            listener = -1;
        }
        end();
    }

    struct shell {
        int fd;
        pid_t pid;
    };

    void open_one() {
        const char *command = kShells[dice.below(sizeof(kShells) / sizeof(*kShells))];
        shell one;
        one.fd = connect(std::string("shell:") + command);
        ASSERT_GE(one.fd, 0) << evidence(h, agent);
        one.pid = newest_child();
        ASSERT_NE(one.pid, -1) << evidence(h, agent);
        open.push_back(one);
    }

    // The agent's child that was not there before, waited for.
    pid_t newest_child() {
        pid_t newest = -1;
        desk_until(
            [&] {
                for (const pid_t child : stress_children(h, agent)) {
                    newest = seen.insert(child).second ? child : newest;
                }
                return newest != -1;
            },
            kStressLimit);
        return newest;
    }

    // By any signal, and sometimes the client goes first. One that has ended with its client is nobody's any more.
    void kill_one() {
        static const int kSignals[] = {SIGKILL, SIGTERM, SIGHUP, SIGSEGV, SIGQUIT, SIGSTOP};
        const auto at = open.begin() + dice.below(static_cast<int>(open.size()));
        const bool client_first = dice.one_in(2);
        if (client_first) {
            close(at->fd);
        }
        const int signo = kSignals[dice.below(sizeof(kSignals) / sizeof(*kSignals))];
        for (const pid_t child : stress_children(h, agent)) {
            if (child == at->pid) {
                desk_kill(h, child, signo);
                desk_kill(h, child, SIGKILL);  // an interactive shell ignores some signals
            }
        }
        if (!client_first) {
            close(at->fd);
        }
        open.erase(at);
    }

    // The children's children, which the agent must not reap.
    void clear_sleepers() {
        for (const pid_t pid : desk_pids(h, "sleep")) {
            desk_kill(h, pid, SIGKILL);
        }
    }

    chance dice;
    std::vector<shell> open;
    std::set<pid_t> seen;
};

TEST_F(ShellStress, KilledAtRandom) {
    const int rounds = stress_rounds(20);
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(open_one());
        if (open.size() > 10 || dice.one_in(3)) {
            dice.wait_up_to(20000);
            kill_one();
        }
        if (round % 50 == 0) {
            ASSERT_TRUE(desk_remove(h, kSaLog));  // the helpers read all of it
        }
    }
    while (!open.empty()) {
        kill_one();
    }
    clear_sleepers();
    EXPECT_TRUE(holds_nothing_more(kStressLimit)) << evidence(h, agent);
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(run_remote("echo still here"), "still here\n");
    printf("%d remote shells killed; %s\n", rounds, to_text(holdings_of(h, agent)).c_str());
}

// A shell whose children outlive it and keep its terminal: init adopts them, and the agent keeps nothing.
TEST_F(ShellStress, OrphansAreNotTheAgents) {
    const int rounds = stress_rounds(5);
    ASSERT_NO_FATAL_FAILURE(come_up());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        const int fd = connect("shell:for i in 1 2 3 4 5; do (sleep 1000 &); done; echo left; exit 0");
        ASSERT_GE(fd, 0) << evidence(h, agent);
        EXPECT_EQ(read_until(fd, "left\n"), "left\n");
        EXPECT_TRUE(holds_nothing_more(kStressLimit)) << evidence(h, agent);
        EXPECT_EQ(desk_pids(h, "sleep").size(), 5u);
        clear_sleepers();
        ASSERT_TRUE(desk_until([&] { return desk_pids(h, "sleep").empty(); }, kStressLimit));
        close(fd);
        ASSERT_TRUE(desk_remove(h, kSaLog));
    }
    EXPECT_EQ(ask("AT\r"), kOk);
    printf("%d shells left five orphans each; %s\n", rounds, to_text(holdings_of(h, agent)).c_str());
}
