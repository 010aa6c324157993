// Memory of the agent with all collectors running, after its start and after many requests, compared with an idle `busybox
// sh` and an idle dropbear. No state.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench/benches.h"
#include "bench/handsets.h"

// One value for each run.
struct series {
    std::vector<double> pss;
    std::vector<double> private_;
    std::vector<double> dirty;
};

static void add(series *all, const memory &held) {
    all->pss.push_back(held.pss);
    all->private_.push_back(held.private_);
    all->dirty.push_back(held.dirty);
}

// ---- stacks

// The stack pointer of a waiting thread: the last but one word in /proc/<pid>/task/<tid>/syscall.
static unsigned long stack_pointer(const std::string &task) {
    std::ifstream file(task + "/syscall");
    std::vector<std::string> words;
    std::string word;
    while (file >> word) {
        words.push_back(word);
    }
    return words.size() < 3 ? 0 : strtoul(words[words.size() - 2].c_str(), nullptr, 16);
}

// Resident KiB of the mapping that contains an address.
static double resident_around(pid_t host_pid, unsigned long address) {
    std::ifstream file("/proc/" + std::to_string(host_pid) + "/smaps");
    std::string line;
    bool is_inside = false;
    while (std::getline(file, line)) {
        unsigned long from = 0;
        unsigned long to = 0;
        if (sscanf(line.c_str(), "%lx-%lx ", &from, &to) == 2) {
            is_inside = from <= address && address < to;
        } else if (is_inside && line.compare(0, 4, "Rss:") == 0) {
            return atof(line.c_str() + 4);
        }
    }
    return 0;
}

static std::vector<double> stacks_of(pid_t host_pid) {
    std::vector<double> stacks;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(host_pid) + "/task")) {
        stacks.push_back(resident_around(host_pid, stack_pointer(task.path())));
    }
    return stacks;
}

// ---- peers

static desk_child start_busybox(desk *h, int *input) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        give_up("pipe");
    }
    desk_child shell = start_program(h, {"/system/xbin/busybox", "sh"}, ends[0]);
    close(ends[0]);
    *input = ends[1];
    return shell;
}

static void look_at_peers(desk *h, series *busybox, series *dropbear) {
    int input;
    desk_child shell = start_busybox(h, &input);
    prepare_dropbear(h);
    desk_child server = start_dropbear(h);
    usleep(100000);  // until both are idle
    add(busybox, memory_of(desk_host_pid(h, shell.pid)));
    add(dropbear, memory_of(desk_host_pid(h, server.pid)));
    end_program(h, &shell);
    end_program(h, &server);
    close(input);
}

// ---- the agent

static void look_at_agent(desk *h, int requests, series *started, series *later, std::vector<double> *stacks) {
    const pid_t agent = agent_of(h);
    const int channel = open_channel(h);
    usleep(500000);  // the last log lines of the boot
    add(started, memory_of(agent));
    for (int i = 0; i < requests; i++) {
        request_ok(channel, "AT\r");
    }
    usleep(100000);
    add(later, memory_of(agent));
    *stacks = stacks_of(agent);
    close(channel);
}

static figure line_of(const char *what, const std::vector<double> &ours, const std::string &beside) {
    figure line;
    line.what = what;
    line.value = spread_of(ours);
    line.ours = text_of("%.0f KiB", line.value.median);
    line.beside = beside;
    line.unit = "KiB";
    return line;
}

static std::string beside(const std::vector<double> &busybox, const std::vector<double> &dropbear) {
    return text_of("busybox sh %.0f KiB, dropbear %.0f KiB", median_of(busybox), median_of(dropbear));
}

static std::vector<double> differences(const std::vector<double> &before, const std::vector<double> &after) {
    std::vector<double> grown;
    for (size_t i = 0; i < before.size(); i++) {
        grown.push_back(after[i] - before[i]);
    }
    return grown;
}

void bench_memory(const effort &how, report *lines) {
    const int requests = how.quick ? 500 : 10000;
    series started;
    series later;
    series busybox;
    series dropbear;
    std::vector<double> stacks;
    for (int run = 0; run < how.runs; run++) {
        desk *h = boot_handset(desk_options());
        look_at_agent(h, requests, &started, &later, &stacks);
        look_at_peers(h, &busybox, &dropbear);
        desk_end(h);
    }
    lines->push_back(
        line_of("private memory after the start", started.private_, beside(busybox.private_, dropbear.private_)));
    lines->back().kind = AT_MOST;
    lines->back().goal = 1024;
    lines->push_back(
        line_of("private dirty memory after the start", started.dirty, beside(busybox.dirty, dropbear.dirty)));
    lines->push_back(line_of("proportional set size after the start", started.pss, beside(busybox.pss, dropbear.pss)));
    lines->push_back(line_of("proportional set size after the requests", later.pss, "–"));
    lines->push_back(line_of(text_of("private dirty, growth in %d requests", requests).c_str(),
                             differences(started.dirty, later.dirty), "–"));
    lines->back().kind = AT_MOST;
    lines->back().goal = 0;
    lines->push_back(line_of("stack in use, of each thread", stacks, text_of("%zu threads", stacks.size())));
}
