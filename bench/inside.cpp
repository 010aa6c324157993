// Measurements inside a handset: the agent's functions and their floors, and whole programs. The benchmarks call it as
// `sa-bench-inside WORD ARGUMENT...`. It prints seconds to standard output.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

#include "bench/floors/floors.h"
#include "bench/measure.h"
#include "sa/main/base/log.h"
#include "sa/main/base/process.h"
#include "sa/sa-handle/collect/kmsg.h"
#include "sa/sa-handle/collect/log_svc.h"
#include "sa/sa-handle/command/command.h"

static const char kLastName[] = "zr-bench-last";
static const char kNobody[] = "zr-bench-nobody";

// Processor time of this thread, user and system. A lookup is long enough to be interrupted, and other processes do not
// count in this time.
static double processor_seconds() {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

template <typename Step>
static double busy_seconds_of(Step step) {
    const double start = processor_seconds();
    step();
    return processor_seconds() - start;
}

template <typename Step>
static double seconds_of(Step step) {
    const double start = now_seconds();
    step();
    return now_seconds() - start;
}

// ---- one line

static void agent_line() {
    sa_log("cmd[%s] param_size[%d]", "/system/bin/logcat", 12);
}

static void bare_line() {
    floor_line("[11-21 10:00:00.000]agent_line cmd[/system/bin/logcat] param_size[12]\n");
}

// Measures single lines of agent and floor in turn, with the daemon idle before each. Prints the medians of each run.
static int measure_lines(int runs, int lines) {
    for (int run = 0; run < runs; run++) {
        std::vector<double> ours;
        std::vector<double> floors;
        for (int i = 0; i < lines; i++) {
            floor_await_daemon();
            ours.push_back(seconds_of(agent_line));
            floor_await_daemon();
            floors.push_back(seconds_of(bare_line));
        }
        printf("%.9f %.9f\n", median_of(ours), median_of(floors));
    }
    return 0;
}

// ---- lookups

// Starts processes that only wait; the last one has a different name. They end with this program.
static void make_processes(int count) {
    for (int i = 0; i < count; i++) {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (i + 1 == count) {
                execl("/proc/self/exe", kLastName, "pause", static_cast<char *>(nullptr));
            }
            pause();
            _exit(0);
        }
    }
    int32_t pid = 0;
    while (sa_util_get_pid(kLastName, &pid) != 0 || pid == 0) {
        usleep(1000);
    }
}

static double agent_lookup(const char *name) {
    int32_t pid = 0;
    floor_await_daemon();
    return busy_seconds_of([&] { sa_util_get_pid(name, &pid); });
}

static double bare_lookup(const char *name) {
    floor_await_daemon();
    return busy_seconds_of([&] { floor_lookup(name); });
}

// Wall-clock time of a whole program, from start to end.
static double program_seconds(const char *file, char *const argv[]) {
    const double start = now_seconds();
    const pid_t pid = fork();
    if (pid == 0) {
        (void)!freopen("/dev/null", "w", stdout);
        execv(file, argv);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        give_up(std::string(file) + " is missing");
    }
    return now_seconds() - start;
}

static double find_with(const char *file, const char *program, const char *option, const char *name) {
    const char *argv[] = {program, option, name, nullptr};
    return program_seconds(file, const_cast<char *const *>(argv));
}

// Prints for each run: agent and floor for a name that exists; agent, floor, pidof and pgrep -f for one that does not.
static int measure_lookups(int runs, int calls, int processes) {
    make_processes(processes);
    for (int run = 0; run < runs; run++) {
        std::vector<double> hit[2];
        std::vector<double> miss[2];
        for (int i = 0; i < calls; i++) {
            hit[0].push_back(agent_lookup(kLastName));
            hit[1].push_back(bare_lookup(kLastName));
            miss[0].push_back(agent_lookup(kNobody));
            miss[1].push_back(bare_lookup(kNobody));
        }
        printf("%.9f %.9f %.9f %.9f %.9f %.9f\n", median_of(hit[0]), median_of(hit[1]), median_of(miss[0]),
               median_of(miss[1]), find_with("/usr/sbin/killall5", "pidof", "-x", kNobody),
               find_with("/usr/bin/pgrep", "pgrep", "-f", kNobody));
    }
    return 0;
}

// ---- command lines

// Runs each line of a file in its own shell, as `system` does: the floor of the save.
static int run_lines(const char *path) {
    std::ifstream file(path);
    std::string line;
    const double start = now_seconds();
    while (std::getline(file, line)) {
        (void)!system(line.c_str());
    }
    printf("%.9f\n", now_seconds() - start);
    return 0;
}

// ---- paths whose instructions are counted; each runs `count` times

static int go_lines(int count) {
    for (int i = 0; i < count; i++) {
        agent_line();
    }
    return 0;
}

static int go_requests(int count, const char *text) {
    static struct sa_msg_st request;
    static struct sa_msg_st response;
    for (int i = 0; i < count; i++) {
        request.len = static_cast<uint16_t>(snprintf(request.data, sizeof(request.data), "%s\r", text));
        handle_sa_cmd_req(STDERR_FILENO, &request, &response);
    }
    return 0;
}

static int go_lookups(int count) {
    int32_t pid = 0;
    for (int i = 0; i < count; i++) {
        sa_util_get_pid(kNobody, &pid);
    }
    return 0;
}

// Runs the kernel-message reader on its thread. The program that writes the messages ends this one.
static int go_kmsg() {
    g_zr_log_svc[LOG_SVC_KMSG - 1].file_size_val = 20480;
    return start_kernel_reader() == 0 ? pause() : 1;
}

// ---- words

static int number_at(int argc, char **argv, int at) {
    return at < argc ? atoi(argv[at]) : 0;
}

int main(int argc, char **argv) {
    const std::string word = argc > 1 ? argv[1] : "";
    if (word == "pause") {
        return pause();
    }
    if (word == "echo" && argc > 2) {
        return floor_echo(argv[2]);
    }
    if (word == "copy") {
        return floor_copy();
    }
    if (word == "lines") {
        return measure_lines(number_at(argc, argv, 2), number_at(argc, argv, 3));
    }
    if (word == "lookups") {
        return measure_lookups(number_at(argc, argv, 2), number_at(argc, argv, 3), number_at(argc, argv, 4));
    }
    if (word == "program" && argc > 2) {
        return printf("%.9f\n", program_seconds(argv[2], argv + 2)) > 0 ? 0 : 1;
    }
    if (word == "system" && argc > 2) {
        return run_lines(argv[2]);
    }
    if (word == "go-line") {
        return go_lines(number_at(argc, argv, 2));
    }
    if (word == "go-request" && argc > 3) {
        return go_requests(number_at(argc, argv, 2), argv[3]);
    }
    if (word == "go-lookup") {
        return go_lookups(number_at(argc, argv, 2));
    }
    if (word == "go-kmsg") {
        return go_kmsg();
    }
    return 2;
}
