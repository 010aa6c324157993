// Memory and descriptors of many open remote shells and many hang-ups, compared with fewer. Each run starts a new agent.
// No state.
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

// ---- remote shells

struct state {
    double dirty;  // KiB
    int descriptors;
};

static state state_of(pid_t agent) {
    return {memory_of(agent).dirty, descriptors_of(agent)};
}

// The values after opening that many more shells.
static state open_shells(desk *h, int listener, int count, std::vector<int> *shells) {
    char byte;
    while (static_cast<int>(shells->size()) < count) {
        const int fd = open_shell(h, listener, "echo; exec cat");
        if (read(fd, &byte, 1) != 1) {
            give_up("a remote shell says nothing");
        }
        shells->push_back(fd);
    }
    usleep(50000);  // until the waiters have written their log lines
    return state_of(agent_of(h));
}

static int descriptors_after(pid_t agent, int wanted) {
    desk_until([&] { return descriptors_of(agent) <= wanted; });
    return descriptors_of(agent);
}

struct shell_costs {
    std::vector<double> ten;    // KiB a shell, from 1 to 10
    std::vector<double> fifty;  // from 10 to 50
    std::vector<double> descriptors;
    std::vector<double> left_open;  // additional descriptors after all shells have ended
};

static void measure_shells(desk *h, shell_costs *costs) {
    restart_agent(h);
    const int listener = open_terminal(h, "/dev/ttysa1");
    const pid_t agent = agent_of(h);
    const int before = descriptors_of(agent);
    std::vector<int> shells;
    const state one = open_shells(h, listener, 1, &shells);
    const state ten = open_shells(h, listener, 10, &shells);
    const state fifty = open_shells(h, listener, 50, &shells);
    costs->ten.push_back((ten.dirty - one.dirty) / 9);
    costs->fifty.push_back((fifty.dirty - ten.dirty) / 40);
    costs->descriptors.push_back((fifty.descriptors - one.descriptors) / 49.0);
    for (const int fd : shells) {
        close(fd);
    }
    costs->left_open.push_back(descriptors_after(agent, before) - before);
    close(listener);
}

// ---- hang-ups

// Opens the channel, sends a request and hangs up.
static void hang_up(desk *h, int times) {
    for (int i = 0; i < times; i++) {
        close(open_channel(h));
    }
}

static state state_after(desk *h, int times) {
    hang_up(h, times);
    usleep(50000);
    return state_of(agent_of(h));
}

struct hang_up_costs {
    std::vector<double> dirty;
    std::vector<double> descriptors;
};

static void measure_hang_ups(desk *h, const effort &how, hang_up_costs *costs) {
    restart_agent(h);
    const state ten = state_after(h, 10);
    const state hundred = state_after(h, 90);
    const state thousand = state_after(h, how.quick ? 100 : 900);
    costs->dirty.push_back(std::max(thousand.dirty, hundred.dirty) - ten.dirty);
    costs->descriptors.push_back(std::max(thousand.descriptors, hundred.descriptors) - ten.descriptors);
}

// ---- lines

static figure line_of(const char *what, const std::vector<double> &values, const char *unit, double goal) {
    figure line;
    line.what = what;
    line.value = spread_of(values);
    line.ours = text_of("%.1f %s", line.value.median, unit);
    line.beside = "itself";
    line.unit = unit;
    line.kind = AT_MOST;
    line.goal = goal;
    return line;
}

void bench_scale(const effort &how, report *lines) {
    desk *h = boot_handset(without_collectors());
    shell_costs shells;
    hang_up_costs hang_ups;
    for (int run = 0; run < how.runs; run++) {
        measure_shells(h, &shells);
        measure_hang_ups(h, how, &hang_ups);
    }
    lines->push_back(line_of("memory a remote shell, from 1 to 10", shells.ten, "KiB", 40));
    lines->push_back(line_of("memory a remote shell, from 10 to 50", shells.fifty, "KiB", 40));
    lines->push_back(line_of("descriptors a remote shell", shells.descriptors, "descriptors", 1));
    lines->push_back(line_of("descriptors left by 50 remote shells", shells.left_open, "descriptors", 0));
    lines->push_back(line_of("memory of hang-ups, from 10 to 1000", hang_ups.dirty, "KiB", 0));
    lines->push_back(line_of("descriptors of hang-ups, from 10 to 1000", hang_ups.descriptors, "descriptors", 0));
    desk_end(h);
}
