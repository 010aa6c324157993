// Fails the agent's system calls one by one, stage by stage, and prints a table of what came of each:
// inject_errors --list, inject_errors [STAGE]. Progress and defects go to standard error; status 1 when there was a defect,
// 2 when no stage has that name. A fault that was not reached is no defect by itself: the agent's runs differ a little, in
// the number of its log lines above all. But each run has the first call of a kind.
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "tests/faults/stage.h"

// One row: faults of one call that ended alike.
struct row {
    std::string title;
    std::string outcome;
    std::vector<std::string> faults;
};

struct tally {
    int runs = 0;
    int missed = 0;  // their call was not made
    int defects = 0;
};

static void add_row(std::vector<row> *rows, const std::string &title, const std::string &what, const std::string &how) {
    const auto found =
        std::find_if(rows->begin(), rows->end(), [&](const row &r) { return r.title == title && r.outcome == what; });
    if (found != rows->end()) {
        found->faults.push_back(how);
        return;
    }
    rows->push_back({title, what, {how}});
}

static std::string listed(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

// "EIO 3rd", "EIO from the 3rd on": counted within the thread and the stage, calls about the same path alone.
static std::string in_words(const fault &f, int before) {
    const bool stays = f.when.back() == '+';
    const int place = atoi(f.when.c_str()) - before;
    return f.error + (stays ? " always" : " " + std::to_string(place));
}

static int calls_before(const ending &plain, const fault &f) {
    int count = 0;
    for (size_t i = 0; i < plain.first; i++) {
        traced_call call;
        count +=
            parse_call(plain.trace[i], &call) && call.name == f.call && (f.path.empty() || call.path == f.path) ? 1 : 0;
    }
    return count;
}

// The first call of a kind is made in each run. Not certain are the last calls of an agent that init kills, and the thread
// that reads the time zone: any thread may be the first to write a log line in a new second.
static bool is_certain(const ending &plain, const fault &f, int before) {
    const bool is_killed = plain.state.end.compare(0, 6, "signal") == 0;
    return atoi(f.when.c_str()) - before == 1 && !is_killed && f.path != "/etc/localtime";
}

static void try_fault(const stage &s, const ending &plain, const fault &f, std::vector<row> *rows, tally *sum) {
    ending end;
    std::string defect;
    sum->runs++;
    if (!run_stage(s, &f, &plain, &end)) {
        fprintf(stderr, "%s: %s %s %s %s: the handset did not come up: %s\n", s.name.c_str(), f.call.c_str(),
                f.path.c_str(), f.error.c_str(), f.when.c_str(), desk_error().c_str());
        sum->defects++;
        return;
    }
    const int before = calls_before(plain, f);
    const std::string how = in_words(f, before);
    if (end.hit.empty()) {
        fprintf(stderr, "%s: %s %s %s: not reached%s\n", s.name.c_str(), f.call.c_str(), f.path.c_str(), how.c_str(),
                is_certain(plain, f, before) ? "; DEFECT: each run has this call" : "");
        sum->missed++;
        sum->defects += is_certain(plain, f, before) ? 1 : 0;
        return;
    }
    std::string what = outcome(s, f, plain, end, &defect);
    if (!defect.empty()) {
        fprintf(stderr, "%s: %s %s: %s; DEFECT: %s\n", s.name.c_str(), end.hit.c_str(), how.c_str(), what.c_str(),
                defect.c_str());
        what += "; DEFECT: " + defect;
        sum->defects++;
    }
    add_row(rows, end.hit, what, how);
}

// A run without a fault that is not well proves nothing; a call that is not known would be passed over. Where children are
// traced as well, their programs' calls are among the others.
static void judge_plain(const stage &s, const ending &plain, tally *sum) {
    const std::string defect = plain_defect(s, plain);
    if (!defect.empty()) {
        fprintf(stderr, "%s: without a fault; DEFECT: %s\n", s.name.c_str(), defect.c_str());
        sum->defects++;
    }
    if (traces_children(s)) {
        return;
    }
    for (const std::string &call : unknown_calls(plain.trace, plain.first)) {
        fprintf(stderr, "%s: %s; DEFECT: neither tried nor left out\n", s.name.c_str(), call.c_str());
        sum->defects++;
    }
}

static void sweep(const stage &s, tally *sum) {
    ending plain;
    if (!run_stage(s, nullptr, nullptr, &plain)) {
        fprintf(stderr, "%s: the handset did not come up: %s\n", s.name.c_str(), desk_error().c_str());
        sum->defects++;
        return;
    }
    judge_plain(s, plain, sum);
    std::vector<row> rows;
    const std::vector<fault> faults = faults_of(plain.trace, plain.first);
    fprintf(stderr, "%s: plain: %s %s\n", s.name.c_str(), plain.seen.c_str(), plain.state.end.c_str());
    for (const fault &f : faults) {
        if (is_concerned(s, f)) {
            try_fault(s, plain, f, &rows, sum);
        }
    }
    printf("\n## %s\n\n| call | errors | ending |\n|---|---|---|\n", s.name.c_str());
    for (const row &r : rows) {
        printf("| `%s` | %s | %s |\n", r.title.c_str(), listed(r.faults).c_str(), r.outcome.c_str());
    }
    fprintf(stderr, "%s: %d faults tried, %d not reached, %d defects so far\n", s.name.c_str(), sum->runs, sum->missed,
            sum->defects);
}

int main(int argc, char **argv) {
    tally sum;
    bool is_known = false;
    const std::string only = argc > 1 ? argv[1] : "";
    for (const stage &s : stages()) {
        if (only == "--list") {
            puts(s.name.c_str());
        } else if (only.empty() || s.name == only) {
            sweep(s, &sum);
        }
        is_known = is_known || only.empty() || only == "--list" || s.name == only;
    }
    if (!is_known) {
        fprintf(stderr, "there is no stage \"%s\"; --list names them\n", only.c_str());
        return 2;
    }
    return sum.defects == 0 ? 0 : 1;
}
