// The benchmarks: measures the agent on desk handsets, compares each value with a peer or a floor, and prints a table. A
// full run also writes results.md and chart.svg into the given directory. Run as root.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>

#include "bench/benches.h"

struct group {
    const char *name;
    void (*measure)(const effort &how, report *lines);
};

static const group kGroups[] = {
    {"request", bench_request}, {"line", bench_line},     {"lookup", bench_lookup}, {"kmsg", bench_kmsg},
    {"boot", bench_boot},       {"shell", bench_shell},   {"adb", bench_adb},       {"save-log", bench_save_log},
    {"idle", bench_idle},       {"memory", bench_memory}, {"size", bench_size},     {"scale", bench_scale},
};

static const int kPriority = -15;  // nice value of everything that is measured, so that other work interferes less
static const char kInstructions[] = "instructions";

struct choice {
    effort how;
    std::string directory;
    std::vector<std::string> names;  // empty: all
    bool record = false;
};

static int usage() {
    printf(
        "usage: bench/run [--quick] [--record] [NAME]...\n\n"
        "  --quick   a try-out: fewer runs of less work\n"
        "  --record  write the table of instructions anew\n\n"
        "Without a name all is measured, and bench/results.md and bench/chart.svg are written (not with --quick).\n"
        "Names:");
    for (const group &one : kGroups) {
        printf(" %s", one.name);
    }
    printf(" %s\n", kInstructions);
    return 2;
}

static bool is_known(const std::string &name) {
    for (const group &one : kGroups) {
        if (name == one.name) {
            return true;
        }
    }
    return name == kInstructions;
}

// Returns false if the command line is invalid.
static bool read_choice(int argc, char **argv, choice *chosen) {
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--quick") {
            chosen->how.quick = true;
            chosen->how.runs = 3;
        } else if (word == "--record") {
            chosen->record = true;
        } else if (word == "--into" && i + 1 < argc) {
            chosen->directory = argv[++i];
        } else if (is_known(word)) {
            chosen->names.push_back(word);
        } else {
            return false;
        }
    }
    return !chosen->directory.empty();
}

static bool is_chosen(const choice &chosen, const std::string &name) {
    for (const std::string &one : chosen.names) {
        if (one == name) {
            return true;
        }
    }
    return chosen.names.empty();
}

int main(int argc, char **argv) {
    choice chosen;
    if (!read_choice(argc, argv, &chosen)) {
        return usage();
    }
    signal(SIGPIPE, SIG_IGN);
    setpriority(PRIO_PROCESS, 0, kPriority);
    report lines;
    for (const group &one : kGroups) {
        if (is_chosen(chosen, one.name)) {
            fprintf(stderr, "== measuring %s\n", one.name);
            one.measure(chosen.how, &lines);
        }
    }
    print_table(lines);
    fflush(stdout);
    if (chosen.names.empty() && !chosen.how.quick) {
        write_markdown(lines, chosen.directory + "/results.md");
        write_chart(lines, chosen.directory + "/chart.svg");
    }
    if (is_chosen(chosen, kInstructions)) {
        fprintf(stderr, "== counting instructions\n");
        bench_instructions(chosen.directory + "/instructions.txt", chosen.record);
    }
    return 0;
}
