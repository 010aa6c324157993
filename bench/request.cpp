// An AT request, from the client's write to the whole answer, compared with a bare terminal that logs the same lines. The
// two are asked in turn, so that other work on the machine affects both equally. They share one processor; the client,
// which is normally another machine, shares the other with the log daemon. Without this pinning the scheduler's placement
// would cause most of the difference. No state.
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kFloorLink[] = "/dev/ttyFLOOR";

static double seconds_of_request(int channel) {
    const double start = now_seconds();
    request_ok(channel, "AT\r");
    return now_seconds() - start;
}

// The percentiles of one run.
struct shares {
    std::vector<double> median;
    std::vector<double> high;
};

static void add_shares(shares *all, const std::vector<double> &seconds) {
    all->median.push_back(median_of(seconds));
    all->high.push_back(percentile_of(seconds, 0.99));
}

// Alternates in groups of requests, so that log lines after an answer delay a request to the same agent, not to the other.
static const int kBlock = 20;

static void ask_block(int channel, std::vector<double> *seconds) {
    for (int i = 0; i < kBlock; i++) {
        seconds->push_back(seconds_of_request(channel));
    }
}

static void run_once(int agent, int floor, int requests, shares *ours, shares *floors) {
    std::vector<double> agent_seconds;
    std::vector<double> floor_seconds;
    for (int i = 0; i < requests; i += kBlock) {
        ask_block(agent, &agent_seconds);
        ask_block(floor, &floor_seconds);
    }
    add_shares(ours, agent_seconds);
    add_shares(floors, floor_seconds);
}

static figure line_of(const char *what, const std::vector<double> &ours, const std::vector<double> &floors,
                      double goal) {
    figure line;
    line.what = what;
    line.ours = seconds_text(median_of(ours));
    line.beside = "floor " + seconds_text(median_of(floors));
    line.value = spread_of(ratios_of(ours, floors));
    line.unit = "×";
    line.kind = AT_MOST;
    line.goal = goal;
    return line;
}

static void share_processors(desk *h, pid_t echo) {
    keep_on_processor(getpid(), 1);
    keep_on_processor(agent_of(h), 0);
    keep_on_processor(desk_host_pid(h, echo), 0);
    keep_on_processor(desk_host_pid(h, desk_service_pid(h, "logd")), 1);
}

void bench_request(const effort &how, report *lines) {
    desk *h = boot_handset(without_collectors());
    desk_child echo = start_program(h, {"/desk/inside", "echo", kFloorLink});
    share_processors(h, echo.pid);
    const int agent = open_channel(h);
    const int floor = open_terminal(h, kFloorLink);
    const int requests = how.quick ? 200 : 10000 / how.runs + 1;
    shares ours;
    shares floors;
    run_once(agent, floor, 100, &ours, &floors);  // so that one-time work does not count
    ours = floors = shares();
    for (int run = 0; run < how.runs; run++) {
        run_once(agent, floor, requests, &ours, &floors);
    }
    lines->push_back(line_of("AT request to OK, median", ours.median, floors.median, 1.25));
    lines->push_back(line_of("AT request to OK, 99th percentile", ours.high, floors.high, 1.5));
    close(agent);
    close(floor);
    end_program(h, &echo);
    desk_end(h);
    keep_on_processor(getpid(), -1);
}
