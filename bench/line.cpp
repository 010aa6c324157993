// One diagnostic line to both logs, compared with one datagram and one open, write and close. No state.
#include "bench/benches.h"
#include "bench/handsets.h"

void bench_line(const effort &how, report *lines) {
    desk_options options = without_collectors();
    options.agent = false;
    desk *h = boot_handset(options);
    const std::string count = how.quick ? "200" : "2000";
    std::vector<double> ours;
    std::vector<double> floors;
    for (const auto &run : run_inside(h, {"lines", std::to_string(how.runs), count})) {
        ours.push_back(run.at(0));
        floors.push_back(run.at(1));
    }
    figure line;
    line.what = "one diagnostic line";
    line.ours = seconds_text(median_of(ours));
    line.beside = "floor " + seconds_text(median_of(floors));
    line.value = spread_of(ratios_of(ours, floors));
    line.unit = "×";
    line.kind = AT_MOST;
    line.goal = 1.2;
    lines->push_back(line);
    desk_end(h);
}
