// From the start of the service to the first OK, with all collectors, compared with the four pauses of 100 ms after the
// launches of its four collector children. No state.
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const int kPauses = 4;
static const useconds_t kPause = 100000;

static double milliseconds_of_pauses() {
    const double start = now_seconds();
    for (int i = 0; i < kPauses; i++) {
        usleep(kPause);
    }
    return (now_seconds() - start) * 1e3;
}

// Stopping the agent is not part of the value.
static double milliseconds_of_start(desk *h) {
    stop_agent(h);
    const double start = now_seconds();
    desk_service_start(h, "zr-qel-sa");
    const int channel = open_terminal(h, "/dev/ttyCMD0");
    request_ok(channel, "AT\r");
    const double seconds = now_seconds() - start;
    close(channel);
    return seconds * 1e3;
}

void bench_boot(const effort &how, report *lines) {
    desk *h = boot_handset(desk_options());
    std::vector<double> ours;
    std::vector<double> pauses;
    std::vector<double> excess;
    for (int run = 0; run < how.runs; run++) {
        ours.push_back(milliseconds_of_start(h));
        pauses.push_back(milliseconds_of_pauses());
        excess.push_back(ours.back() - pauses.back());
    }
    figure line;
    line.what = "start to first OK, beyond the pauses";
    line.ours = text_of("%.0f ms", median_of(ours));
    line.beside = text_of("four pauses %.0f ms", median_of(pauses));
    line.value = spread_of(excess);
    line.unit = "ms";
    line.kind = AT_MOST;
    line.goal = 25;
    lines->push_back(line);
    desk_end(h);
}
