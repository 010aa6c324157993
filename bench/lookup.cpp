// Lookup of a process by name among few and many processes, found last or not found, compared with a bare loop over /proc.
// pidof and pgrep are listed for orientation only: they are whole programs and must start first. No state.
#include "bench/benches.h"
#include "bench/handsets.h"

static const int kProcesses[] = {50, 500, 5000};

enum column { HIT, FLOOR_HIT, MISS, FLOOR_MISS, PIDOF, PGREP, COLUMNS };

// One value for each run, by column.
typedef std::vector<std::vector<double>> columns;

static columns measure(const effort &how, int processes) {
    desk_options options = without_collectors();
    options.agent = false;
    desk *h = boot_handset(options);
    const int calls = (how.quick ? 3000 : 15000) / (processes + 50) + 3;
    columns found(COLUMNS);
    for (const auto &run :
         run_inside(h, {"lookups", std::to_string(how.runs), std::to_string(calls), std::to_string(processes)})) {
        for (int i = 0; i < COLUMNS; i++) {
            found[static_cast<size_t>(i)].push_back(run.at(static_cast<size_t>(i)));
        }
    }
    desk_end(h);
    return found;
}

static figure line_of(const std::string &what, const std::vector<double> &ours, const char *peer,
                      const std::vector<double> &theirs) {
    figure line;
    line.what = what;
    line.ours = seconds_text(median_of(ours));
    line.beside = std::string(peer) + " " + seconds_text(median_of(theirs));
    line.value = spread_of(ratios_of(ours, theirs));
    line.unit = "×";
    return line;
}

static void add_lines(int processes, const columns &found, report *lines) {
    const std::string among = " among " + std::to_string(processes);
    figure hit = line_of("lookup, found" + among, found[HIT], "floor", found[FLOOR_HIT]);
    figure miss = line_of("lookup, not found" + among, found[MISS], "floor", found[FLOOR_MISS]);
    hit.kind = miss.kind = AT_MOST;
    hit.goal = miss.goal = 1.15;
    lines->push_back(hit);
    lines->push_back(miss);
    lines->push_back(line_of("the same, for orientation", found[MISS], "pidof", found[PIDOF]));
    lines->push_back(line_of("the same, for orientation", found[MISS], "pgrep -f", found[PGREP]));
}

// Seconds for each additional process, one value for each run.
static std::vector<double> slopes(const std::vector<double> &few, const std::vector<double> &many) {
    std::vector<double> slope;
    for (size_t i = 0; i < few.size(); i++) {
        slope.push_back((many[i] - few[i]) / (kProcesses[2] - kProcesses[0]));
    }
    return slope;
}

void bench_lookup(const effort &how, report *lines) {
    std::vector<columns> all;
    for (const int processes : kProcesses) {
        all.push_back(measure(how, processes));
        add_lines(processes, all.back(), lines);
    }
    figure slope = line_of("lookup, for each process more", slopes(all[0][MISS], all[2][MISS]), "floor",
                           slopes(all[0][FLOOR_MISS], all[2][FLOOR_MISS]));
    slope.kind = AT_MOST;
    slope.goal = 1.0;
    lines->push_back(slope);
}
