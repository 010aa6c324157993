// Signals at random times. In any activity and on any thread the agent ends at once after its teardown: the channel's name
// is removed, the collectors continue or are killed, depending on the signal, and no lock blocks the end.
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/reliability/stress.h"
#include "tests/support/commands.h"
#include "tests/support/sanitized.h"

static const char kLink[] = "/dev/ttyCMD0";
static const char kListener[] = "/dev/ttysa1";
static const char kService[] = "zr-qel-sa";

// After this log line the agent's handlers are installed.
static const char kHasHandlers[] = "]main sa_cfg_init ret_val[";
static const char kTreatment[] = "]signal_treatment signal[";

// Limit from the signal to the end. With sanitizers an end takes long.
static double longest_end() {
    return is_sanitized() ? 20 : 2;  // seconds
}

// An activity of the agent and its maximum duration, within which the signal is sent. The duration is a little longer than
// the activity takes on a busy machine, so that signals also arrive at its end.
struct activity {
    const char *request;
    int microseconds;
};
static const char kStartUp[] = "start-up";
static const char kHangUp[] = "hang-up";
static const char kDeleteLog[] = "AT SA+DELETE_LOG\r";
static const char kRemoteShell[] = "remote shell";
static const activity kActivities[] = {
    {kStartUp, 200000},
    {kStartUp, 800000},
    {kHangUp, 10000},
    {kRemoteShell, 500000},  // 0.1 s of its own, and 0.2 s in which its client can still read
    {"AT\r", 2000},
    {"AT SA+QUERY_SERVICE=\"zr-elog\"\r", 10000},
    {"AT SA+SYSTEM=\"true\"\r", 60000},
    {"AT SA+SYSTEM=\"false\"\r", 2800000},  // five times, with 0.5 s behind each
    {"AT SA+SAVE_LOG\r", 500000},
    {kDeleteLog, 900000},
    {"AT SA+KERNEL_LOG=1\r", 20000},
    {"AT SA+DMESG_LOG=1\r", 60000},
};

// Field of /proc/PID/stat: the minor faults of children that have been waited for.
static const int kChildrenFaults = 11;

// After this time, ms, without any effect a signal may be lost. Shorter than the pauses of a repeated shell command.
static const int kTaken = 250;
static const int kTries = 40;

class SignalStress : public CommandTest {
  protected:
    void boot_stress() {
        desk_options options;
        options.agent = false;
        options.restart_ms = 0;
        add_quick_programs(&options);
        boot_only(options);
        residents = everybody();
    }

    // The pids in the handset. In the middle of an exec a process has no arguments to be found by, but always a pid.
    std::vector<std::string> everybody() {
        std::vector<std::string> names = desk_list(h, "/proc");
        names.erase(
            std::remove_if(names.begin(), names.end(), [](const std::string &name) { return atoi(name.c_str()) == 0; }),
            names.end());
        return names;
    }

    // Prepares the next round, with all collectors or none.
    void prepare_round() {
        const std::string busy = log_property({{2, "2,100"}, {3, "2,100"}, {4, "2,100"}, {5, "2,100"}, {6, "2,100"}});
        collectors = dice.one_in(2) ? 3 : 0;
        desk_set_property(h, kLogProperty, collectors != 0 ? busy : log_property({}));
        desk_remove(h, kSaLog);
        desk_remove(h, kLink);  // init may have killed an agent that it started again
        desk_remove(h, "/storage/real_sd/logs");
        act = &kActivities[dice.below(sizeof(kActivities) / sizeof(*kActivities))];
    }

    bool is_starting() const {
        return act->request == kStartUp;
    }

    // A random part of the activity's time, the beginning of it more often than the rest.
    void wait_for_moment() {
        dice.wait_up_to(act->microseconds >> dice.below(6));
    }

    // Brings the agent into the round's activity, and lets time pass.
    void provoke() {
        if (is_starting()) {
            dice.wait_up_to(act->microseconds);
            return;
        }
        ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_listener_loop fd[", kStressLimit)) << evidence(h, agent);
        ASSERT_TRUE(desk_until([&] { return find_collectors(); }, kStressLimit))
            << logcats.size() << " logcats, " << tcpdumps.size() << " tcpdumps" << evidence(h, agent);
        command_thread = stress_threads(h, agent).back();  // it is started last
        first = any_victim();
        second = any_victim();
        for (int message = 0; message < 20; message++) {
            desk_kmsg_feed(h, "<6>[  100.000000] for the kernel-message reader, if there is one\n");
        }
        if (act->request == kRemoteShell) {
            listener = desk_open_tty(h, kListener);
            ASSERT_GE(listener, 0) << desk_error();
            const std::string request = "shell:sleep 0.1";
            ASSERT_EQ(write(listener, request.data(), request.size()), static_cast<ssize_t>(request.size()));
            ASSERT_EQ(write(listener, "+", 1), 1);  // whether or not it is read as a part of the request
        } else {
            open_channel();
            if (act->request == kHangUp) {
                hang_up();
            } else {
                send(act->request);
            }
        }
        wait_for_moment();
    }

    // Whether all of the round's collectors are there, whose pids are kept.
    bool find_collectors() {
        logcats = desk_pids(h, "logcat");
        tcpdumps = desk_pids(h, "tcpdump");
        return logcats.size() == collectors && tcpdumps.size() == (collectors != 0 ? 1 : 0);
    }

    // The process, the command thread, or any thread.
    victim any_victim() {
        const std::vector<pid_t> threads = stress_threads(h, agent);
        switch (threads.empty() ? 0 : dice.below(3)) {
            case 0: return find_victim(h, agent);
            case 1: return find_victim(h, agent, is_starting() ? threads.back() : command_thread);
            default:
                return find_victim(h, agent,
                                   threads[static_cast<size_t>(dice.below(static_cast<int>(threads.size())))]);
        }
    }

    // Sends one signal, sometimes two, which two threads may then handle at the same time. A thread that has ended gets none.
    void send_signal(int signo) {
        if (is_starting()) {
            first = any_victim();
        }
        strike_first(signo);
        if (dice.one_in(4)) {
            dice.wait_up_to(500);
            strike(is_starting() ? any_victim() : second, signo);
        }
    }

    void strike_first(int signo) {
        shell_faults = stat(agent, kChildrenFaults);
        ignored_at_strike = ignores_interrupts();
        sent_at = desk_now_ms();
        strike(first, signo);
    }

    // To the process, which cannot be gone before its end. Its time begins anew.
    void send_again(int signo) {
        repeated++;
        first = find_victim(h, agent);
        strike_first(signo);
    }

    bool ignores_interrupts() {
        return (strtoull(status(agent, "SigIgn").c_str(), nullptr, 16) & (1u << (SIGINT - 1))) != 0;
    }

    // A thread's signal is lost with the thread, and SIGINT while `system` runs: then interrupts are ignored, or the
    // faults of a shell that has ended since have become those of the agent's children. Nothing else may be lost.
    bool is_lost(int signo) {
        if (first.thread != 0 && !strike(first, 0)) {
            return true;
        }
        return signo == SIGINT &&
               (ignored_at_strike || ignores_interrupts() || stat(agent, kChildrenFaults) != shell_faults);
    }

    bool log_has(const char *text) {
        return desk_file_text(h, kSaLog).find(text) != std::string::npos;
    }

    // A crash in the middle of it all would be handled, too, and end with the same status.
    bool has_crashed(int signo) {
        return (signo != SIGSEGV && log_has("signal[11-SIGSEGV]")) || (signo != SIGBUS && log_has("signal[7-SIGBUS]"));
    }

    // Nothing of a round's agent is left: neither collectors nor children on their way to be something else.
    void clear_round() {
        hang_up();
        if (listener >= 0) {
            close(listener);
            listener = -1;
        }
        ASSERT_TRUE(desk_until([&] { return is_clear(); }, kStressLimit)) << "not clear";
    }

    // Collectors outlive the agent on purpose; all others come to their end by themselves.
    bool is_clear() {
        for (const char *name : {"logcat", "tcpdump"}) {
            for (const pid_t pid : desk_pids(h, name)) {
                desk_kill(h, pid, SIGKILL);
            }
        }
        const std::vector<std::string> present = everybody();
        return std::includes(residents.begin(), residents.end(), present.begin(), present.end());
    }

    void expect_in_time() {
        const double seconds = static_cast<double>(desk_now_ms() - sent_at) / 1000;
        longest = std::max(longest, seconds);
        EXPECT_LE(seconds, longest_end()) << evidence(h, agent);
    }

    void tell(const char *name, int rounds) const {
        printf("%s: %d rounds, %d handled, %d before there were handlers, %d sent again; longest %.3f s\n", name,
               rounds, handled, early, repeated, longest);
    }

    chance dice;
    std::vector<std::string> residents;  // who is there without the agent
    const activity *act = nullptr;
    pid_t agent = -1;
    pid_t command_thread = -1;
    victim first;
    victim second;
    int listener = -1;
    size_t collectors = 0;       // logcats that the agent starts in this round; with them comes one tcpdump
    std::vector<pid_t> logcats;  // of an agent that has come up
    std::vector<pid_t> tcpdumps;
    int64_t sent_at = 0;    // ms
    long shell_faults = 0;  // when the signal was sent
    bool ignored_at_strike = false;
    int handled = 0;
    int early = 0;
    int repeated = 0;
    double longest = 0;
};

// ---- signals that end the agent

struct ending {
    const char *name;
    int signo;
};

static void PrintTo(const ending &one, std::ostream *out) {
    *out << one.name;
}

class EndingStress : public SignalStress, public ::testing::WithParamInterface<ending> {
  protected:
    void SetUp() override {
        sends_crashes = GetParam().signo == SIGSEGV || GetParam().signo == SIGBUS;
    }

    // A signal that was lost is sent again; one that was not must end the agent.
    int end_of_agent(desk_child *child) {
        for (int tries = 0; tries < kTries; tries++) {
            const int status = desk_wait(h, child, kTaken);
            if (status != -1) {
                return status;
            }
            if (log_has(kTreatment) || !is_lost(GetParam().signo)) {
                return desk_wait(h, child, kStressLimit);
            }
            send_again(GetParam().signo);
        }
        return -1;
    }

    void run_round() {
        prepare_round();
        SCOPED_TRACE(act->request);
        desk_child child = launch();
        agent = child.pid;
        ASSERT_NO_FATAL_FAILURE(provoke());
        send_signal(GetParam().signo);
        const int status = end_of_agent(&child);
        expect_in_time();
        if (is_starting() && WIFSIGNALED(status) && WTERMSIG(status) == GetParam().signo && !log_has(kHasHandlers)) {
            early++;
        } else {
            ASSERT_EQ(status, 0) << evidence(h, agent);
            ASSERT_FALSE(desk_exists(h, kLink)) << evidence(h, agent);
            ASSERT_FALSE(has_crashed(GetParam().signo)) << evidence(h, agent);
            handled++;
        }
        if (!is_starting() && std::string(act->request) != kDeleteLog) {
            ASSERT_EQ(desk_pids(h, "logcat"), logcats) << "the collectors go on" << evidence(h, agent);
            ASSERT_EQ(desk_pids(h, "tcpdump"), tcpdumps) << "the collectors go on" << evidence(h, agent);
        }
        clear_round();
    }
};

TEST_P(EndingStress, StatusZeroAtAnyMoment) {
    const int rounds = stress_rounds(12);
    ASSERT_NO_FATAL_FAILURE(boot_stress());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(run_round());
    }
    tell(GetParam().name, rounds);
}

INSTANTIATE_TEST_SUITE_P(All, EndingStress,
                         ::testing::Values(ending{"SIGTERM", SIGTERM}, ending{"SIGINT", SIGINT},
                                           ending{"SIGSEGV", SIGSEGV}, ending{"SIGBUS", SIGBUS}),
                         [](const ::testing::TestParamInfo<ending> &one) { return one.param.name; });

// ---- the reset signal

class ResetStress : public SignalStress {
  protected:
    int raw_status() {
        int status = -1;
        desk_until(
            [&] {
                for (const desk_event &event : desk_events(h, "exit")) {
                    if (event.fields[0] == kService && event.fields[1] == std::to_string(agent)) {
                        status = atoi(event.fields[2].c_str());
                    }
                }
                return status != -1;
            },
            kStressLimit);
        return status;
    }

    // Whether init has stopped the agent. A signal that was lost with its thread is sent again.
    bool is_stopped() {
        for (int tries = 0; tries < kTries; tries++) {
            if (desk_wait_service(h, kService, "stopped", kTaken)) {
                return true;
            }
            if (desk_agent_pid(h) != agent) {
                return false;  // it died of the signal, and init starts it again
            }
            if (log_has(kTreatment) || !is_lost(SIGUSR2)) {
                return desk_wait_service(h, kService, "stopped", kStressLimit);
            }
            send_again(SIGUSR2);
        }
        return false;
    }

    void run_round() {
        prepare_round();
        SCOPED_TRACE(act->request);
        ASSERT_EQ(desk_service_start(h, kService), 0);
        agent = desk_agent_pid(h);
        ASSERT_NO_FATAL_FAILURE(provoke());
        const bool has_handlers = log_has(kHasHandlers);
        send_signal(SIGUSR2);
        if (!is_stopped()) {
            ASSERT_FALSE(has_handlers) << "raw status " << raw_status() << evidence(h, agent);
            ASSERT_EQ(raw_status(), SIGUSR2) << evidence(h, agent);
            ASSERT_EQ(desk_service_stop(h, kService), 0);
            ASSERT_TRUE(desk_wait_service(h, kService, "stopped", kStressLimit)) << evidence(h, agent);
            early++;
            return;
        }
        expect_in_time();
        EXPECT_EQ(raw_status(), SIGKILL) << "init's way to stop a service" << evidence(h, agent);
        EXPECT_FALSE(desk_exists(h, kLink)) << evidence(h, agent);
        EXPECT_FALSE(has_crashed(SIGUSR2)) << evidence(h, agent);
        EXPECT_TRUE(desk_until([&] { return desk_pids(h, "logcat").empty() && desk_pids(h, "tcpdump").empty(); },
                               kStressLimit));
        handled++;
    }
};

TEST_F(ResetStress, InitStopsTheServiceAtAnyMoment) {
    const int rounds = stress_rounds(12);
    ASSERT_NO_FATAL_FAILURE(boot_stress());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(run_round());
        ASSERT_FALSE(HasFailure());
        clear_round();
    }
    tell("SIGUSR2", rounds);
}
