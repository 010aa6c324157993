// An AT request: from the client's write to the whole answer, beside a bare terminal that leaves the same lines. The two
// are asked in turn, so that both meet the same moments of the machine. No state.
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kFloorLink[] = "/dev/ttyFLOOR";

static double seconds_of_request(int channel) {
    const double start = now_seconds();
    request_ok(channel, "AT\r");
    return now_seconds() - start;
}

// The shares of interest of one run.
struct shares {
    std::vector<double> median;
    std::vector<double> high;
};

static void add_shares(shares *all, const std::vector<double> &seconds) {
    all->median.push_back(median_of(seconds));
    all->high.push_back(percentile_of(seconds, 0.99));
}

static void run_once(int agent, int floor, int requests, shares *ours, shares *floors) {
    std::vector<double> agent_seconds;
    std::vector<double> floor_seconds;
    for (int i = 0; i < requests; i++) {
        agent_seconds.push_back(seconds_of_request(agent));
        floor_seconds.push_back(seconds_of_request(floor));
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

void bench_request(const effort &how, report *lines) {
    desk *h = boot_handset(without_collectors());
    desk_child echo = start_program(h, {"/desk/inside", "echo", kFloorLink});
    const int agent = open_channel(h);
    const int floor = open_terminal(h, kFloorLink);
    const int requests = how.quick ? 200 : 10000 / how.runs + 1;
    shares ours;
    shares floors;
    run_once(agent, floor, 100, &ours, &floors);  // what is done once is done
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
}
