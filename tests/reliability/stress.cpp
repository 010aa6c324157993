// Helpers of the stress tests. No state except the random generator's.
#include "tests/reliability/stress.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

static const char kDiagnosticLog[] = "/data/local/log/sa.log";
static const char kPreviousLog[] = "/data/local/log/sa.log.1";

static const int kLineLimit = 2000;  // ms that a line may take to be written

static long number_of_environment(const char *name, long fallback) {
    const char *text = getenv(name);
    return text != nullptr && *text != '\0' ? strtol(text, nullptr, 10) : fallback;
}

int stress_rounds(int ordinary) {
    return static_cast<int>(number_of_environment("ROUNDS", ordinary * number_of_environment("TIMES", 1)));
}

// ---- chance

static uint32_t told_seed() {
    const long seed = number_of_environment("SEED", static_cast<long>(std::random_device()() % 1000000));
    printf("SEED=%ld\n", seed);
    fflush(stdout);
    return static_cast<uint32_t>(seed);
}

chance::chance() : numbers(told_seed()) {}

int chance::below(int limit) {
    return static_cast<int>(numbers() % static_cast<uint32_t>(limit));
}

bool chance::one_in(int count) {
    return below(count) == 0;
}

void chance::wait_up_to(int microseconds) {
    usleep(static_cast<useconds_t>(below(microseconds + 1)));
}

// ---- processes and threads

static std::string proc_text(desk *h, pid_t pid, const std::string &name) {
    return desk_file_text(h, "/proc/" + std::to_string(pid) + "/" + name);
}

// State letter and parent from /proc/PID/stat; false when the process is gone.
static bool read_stat(desk *h, pid_t pid, char *state, pid_t *parent) {
    const std::string text = proc_text(h, pid, "stat");
    const size_t at = text.rfind(')');
    return at != std::string::npos && sscanf(text.c_str() + at + 1, " %c %d", state, parent) == 2;
}

std::vector<pid_t> stress_children(desk *h, pid_t pid) {
    std::vector<pid_t> children;
    for (const std::string &name : desk_list(h, "/proc")) {
        const pid_t other = atoi(name.c_str());
        char state;
        pid_t parent;
        if (other > 0 && read_stat(h, other, &state, &parent) && parent == pid) {
            children.push_back(other);
        }
    }
    return children;
}

std::vector<pid_t> stress_threads(desk *h, pid_t pid) {
    std::vector<pid_t> threads;
    for (const std::string &name : desk_list(h, "/proc/" + std::to_string(pid) + "/task")) {
        threads.push_back(atoi(name.c_str()));
    }
    std::sort(threads.begin(), threads.end(),
              [pid](pid_t a, pid_t b) { return (a == pid) != (b == pid) ? a == pid : a < b; });
    return threads;
}

victim find_victim(desk *h, pid_t pid, pid_t thread) {
    victim whom;
    whom.process = desk_host_pid(h, pid);
    whom.thread = thread == 0 || thread == pid ? 0 : desk_host_pid(h, thread);
    return whom;
}

bool strike(const victim &whom, int signo) {
    if (whom.process <= 1 || whom.thread < 0) {
        return false;
    }
    return (whom.thread == 0 ? kill(whom.process, signo) : syscall(SYS_tgkill, whom.process, whom.thread, signo)) == 0;
}

static long status_number(const std::string &status, const std::string &name) {
    const size_t at = status.find("\n" + name + ":");
    return at == std::string::npos ? 0 : atol(status.c_str() + at + name.size() + 2);
}

// What a process has open for longer than a line of its log takes: while it writes one, it is looked at again.
static int lasting_descriptors(desk *h, pid_t pid) {
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    std::vector<std::string> names;
    desk_until(
        [&] {
            names = desk_list(h, directory);
            return std::none_of(names.begin(), names.end(), [&](const std::string &name) {
                return desk_link_target(h, directory + "/" + name) == kDiagnosticLog;
            });
        },
        kLineLimit);
    return static_cast<int>(names.size());
}

holdings holdings_of(desk *h, pid_t pid) {
    holdings held;
    const std::string status = proc_text(h, pid, "status");
    held.descriptors = lasting_descriptors(h, pid);
    held.threads = static_cast<int>(status_number(status, "Threads"));
    held.resident = status_number(status, "VmRSS");
    for (const pid_t child : stress_children(h, pid)) {
        char state;
        pid_t parent;
        held.children++;
        held.zombies += read_stat(h, child, &state, &parent) && state == 'Z' ? 1 : 0;
    }
    return held;
}

std::string to_text(const holdings &held) {
    return std::to_string(held.descriptors) + " descriptors, " + std::to_string(held.threads) + " threads, " +
           std::to_string(held.children) + " children (" + std::to_string(held.zombies) + " zombies), " +
           std::to_string(held.resident) + " KiB resident";
}

// ---- evidence

static std::string output_of(const std::string &command) {
    std::string text;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return text;
    }
    char bytes[4096];
    for (size_t count; (count = fread(bytes, 1, sizeof(bytes), pipe)) > 0;) {
        text.append(bytes, count);
    }
    pclose(pipe);
    return text;
}

static std::string last_lines(const std::string &text, int count) {
    size_t at = text.size();
    while (count-- > 0 && at != std::string::npos && at > 0) {
        at = text.rfind('\n', at - 2);
    }
    return at == std::string::npos ? text : text.substr(at);
}

static std::string thread_state(desk *h, pid_t pid, pid_t thread) {
    const std::string task = "task/" + std::to_string(thread) + "/";
    const std::string status = proc_text(h, pid, task + "status");
    std::string text = "\nthread " + std::to_string(thread) + " in " + proc_text(h, pid, task + "wchan") +
                       ", system call " + proc_text(h, pid, task + "syscall") + proc_text(h, pid, task + "stack");
    for (const char *name : {"State", "SigPnd", "ShdPnd", "SigBlk"}) {
        const size_t at = status.find(std::string("\n") + name + ":");
        text += at == std::string::npos ? "" : status.substr(at + 1, status.find('\n', at + 1) - at);
    }
    return text;
}

std::string evidence(desk *h, pid_t pid) {
    std::string text = "\n---- the end of sa.log.1" + last_lines(desk_file_text(h, kPreviousLog), 40);
    text += "\n---- the end of sa.log" + last_lines(desk_file_text(h, kDiagnosticLog), 40);
    text += "\n---- process " + std::to_string(pid);
    for (const pid_t thread : stress_threads(h, pid)) {
        text += thread_state(h, pid, thread);
    }
    const pid_t host_pid = desk_host_pid(h, pid);
    if (host_pid > 0) {
        text += output_of("gdb -p " + std::to_string(host_pid) + " -batch -ex 'thread apply all bt' 2>/dev/null");
    }
    return text;
}
