// Signals at random moments. Whatever the agent is doing, and on whichever thread it is met, it ends at once and in
// order: the channel's name gone, the collectors left or killed as the signal has it, and nothing held for ever.
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "tests/reliability/storm.h"
#include "tests/support/commands.h"

static const char kLink[] = "/dev/ttyCMD0";
static const char kListener[] = "/dev/ttysa1";
static const char kService[] = "zr-qel-sa";

// Behind this line the agent has its handlers.
static const char kHasHandlers[] = "]main sa_cfg_init ret_val[";
static const char kTreatment[] = "]signal_treatment signal[";

// What the agent is busy with, and about how long: the signal comes within that time.
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
    {kHangUp, 5000},
    {kRemoteShell, 300000},
    {"AT\r", 2000},
    {"AT SA+QUERY_SERVICE=\"zr-elog\"\r", 5000},
    {"AT SA+SYSTEM=\"true\"\r", 10000},
    {"AT SA+SYSTEM=\"false\"\r", 2000000},
    {"AT SA+SAVE_LOG\r", 400000},
    {kDeleteLog, 800000},
    {"AT SA+KERNEL_LOG=1\r", 10000},
    {"AT SA+DMESG_LOG=1\r", 10000},
};

class SignalStorm : public CommandTest {
  protected:
    void boot_storm() {
        desk_options options;
        options.agent = false;
        options.restart_ms = 0;
        add_quick_programs(&options);
        boot_only(options);
    }

    // A clean place for the next round, with all collectors or none.
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
        ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_listener_loop fd[", kStormLimit)) << evidence(h, agent);
        ASSERT_TRUE(desk_until([&] { return (logcats = desk_pids(h, "logcat")).size() == collectors; }, kStormLimit));
        command_thread = storm_threads(h, agent).back();  // it is started last
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

    // The process, the command thread, or any thread.
    victim any_victim() {
        const std::vector<pid_t> threads = storm_threads(h, agent);
        switch (threads.empty() ? 0 : dice.below(3)) {
            case 0: return find_victim(h, agent);
            case 1: return find_victim(h, agent, is_starting() ? threads.back() : command_thread);
            default:
                return find_victim(h, agent,
                                   threads[static_cast<size_t>(dice.below(static_cast<int>(threads.size())))]);
        }
    }

    // One signal, or at times two, which two threads may then handle side by side. A thread that is not there any more is
    // nobody's victim.
    void send_signal(int signo) {
        if (is_starting()) {
            first = any_victim();
        }
        strike(first, signo);
        if (dice.one_in(4)) {
            dice.wait_up_to(500);
            strike(is_starting() ? any_victim() : second, signo);
        }
    }

    // A thread's signal is lost when the thread comes to its end first, and SIGINT while `system` runs.
    bool may_be_lost(int signo) const {
        return first.thread != 0 || signo == SIGINT;
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
        ASSERT_TRUE(desk_until([&] { return desk_pids(h, kService).empty() && no_collectors(); }, kStormLimit))
            << "not clear";
    }

    bool no_collectors() {
        std::vector<pid_t> all = desk_pids(h, "logcat");
        const std::vector<pid_t> captures = desk_pids(h, "tcpdump");
        all.insert(all.end(), captures.begin(), captures.end());
        for (const pid_t pid : all) {
            desk_kill(h, pid, SIGKILL);
        }
        return all.empty();
    }

    void note_time(std::chrono::steady_clock::time_point since) {
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
        longest = std::max(longest, seconds);
        late += seconds > 2 ? 1 : 0;
    }

    void tell(const char *name, int rounds) const {
        printf(
            "%s: %d rounds, %d handled, %d before there were handlers, %d sent again; longest %.3f s, %d above 2 s\n",
            name, rounds, handled, early, repeated, longest, late);
    }

    chance dice;
    const activity *act = nullptr;
    pid_t agent = -1;
    pid_t command_thread = -1;
    victim first;
    victim second;
    int listener = -1;
    size_t collectors = 0;       // logcats that the agent starts in this round
    std::vector<pid_t> logcats;  // of an agent that has come up
    int handled = 0;
    int early = 0;
    int repeated = 0;
    int late = 0;
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

class EndingStorm : public SignalStorm, public ::testing::WithParamInterface<ending> {
  protected:
    // Whether a signal that may be lost was can be seen in the log: then, and only then, it is sent again.
    int end_of_agent(desk_child *child) {
        for (int tries = 0; tries < 20; tries++) {
            const int status = desk_wait(h, child, 500);
            if (status != -1) {
                return status;
            }
            if (log_has(kTreatment) || !may_be_lost(GetParam().signo)) {
                return desk_wait(h, child, kStormLimit);
            }
            repeated++;
            desk_kill(h, agent, GetParam().signo);
        }
        return -1;
    }

    void run_round() {
        prepare_round();
        SCOPED_TRACE(act->request);
        desk_child child = launch();
        agent = child.pid;
        ASSERT_NO_FATAL_FAILURE(provoke());
        const int sent_before = repeated;
        const auto since = std::chrono::steady_clock::now();
        send_signal(GetParam().signo);
        const int status = end_of_agent(&child);
        if (repeated == sent_before) {
            note_time(since);
        }
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
        }
        clear_round();
    }
};

TEST_P(EndingStorm, StatusZeroAtAnyMoment) {
    const int rounds = storm_rounds(12);
    ASSERT_NO_FATAL_FAILURE(boot_storm());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(run_round());
    }
    tell(GetParam().name, rounds);
}

INSTANTIATE_TEST_SUITE_P(All, EndingStorm,
                         ::testing::Values(ending{"SIGTERM", SIGTERM}, ending{"SIGINT", SIGINT},
                                           ending{"SIGSEGV", SIGSEGV}, ending{"SIGBUS", SIGBUS}),
                         [](const ::testing::TestParamInfo<ending> &one) { return one.param.name; });

// ---- the reset signal

class ResetStorm : public SignalStorm {
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
            kStormLimit);
        return status;
    }

    // Whether init has stopped the agent, or the signal was lost with its thread and has to be sent again.
    bool is_stopped() {
        for (int tries = 0; tries < 20; tries++) {
            if (desk_wait_service(h, kService, "stopped", 500)) {
                return true;
            }
            if (desk_agent_pid(h) != agent) {
                return false;  // it died of the signal, and init starts it again
            }
            if (log_has(kTreatment) || !may_be_lost(SIGUSR2)) {
                return desk_wait_service(h, kService, "stopped", kStormLimit);
            }
            repeated++;
            desk_kill(h, agent, SIGUSR2);
        }
        return false;
    }

    void run_round() {
        prepare_round();
        SCOPED_TRACE(act->request);
        ASSERT_EQ(desk_service_start(h, kService), 0);
        agent = desk_agent_pid(h);
        ASSERT_NO_FATAL_FAILURE(provoke());
        const int sent_before = repeated;
        const bool has_handlers = log_has(kHasHandlers);
        const auto since = std::chrono::steady_clock::now();
        send_signal(SIGUSR2);
        if (!is_stopped()) {
            ASSERT_FALSE(has_handlers) << "raw status " << raw_status() << evidence(h, agent);
            ASSERT_EQ(raw_status(), SIGUSR2) << evidence(h, agent);
            ASSERT_EQ(desk_service_stop(h, kService), 0);
            ASSERT_TRUE(desk_wait_service(h, kService, "stopped", kStormLimit)) << evidence(h, agent);
            early++;
            return;
        }
        if (repeated == sent_before) {
            note_time(since);
        }
        EXPECT_EQ(raw_status(), SIGKILL) << "init's way to stop a service" << evidence(h, agent);
        EXPECT_FALSE(desk_exists(h, kLink)) << evidence(h, agent);
        EXPECT_FALSE(has_crashed(SIGUSR2)) << evidence(h, agent);
        EXPECT_TRUE(
            desk_until([&] { return desk_pids(h, "logcat").empty() && desk_pids(h, "tcpdump").empty(); }, kStormLimit));
        handled++;
    }
};

TEST_F(ResetStorm, InitStopsTheServiceAtAnyMoment) {
    const int rounds = storm_rounds(12);
    ASSERT_NO_FATAL_FAILURE(boot_storm());
    for (int round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(run_round());
        ASSERT_FALSE(HasFailure());
        clear_round();
    }
    tell("SIGUSR2", rounds);
}
