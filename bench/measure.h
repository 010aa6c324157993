// Measured values and the report. A value is the median and the spread of several runs. Each run measures the agent and
// what it is compared with directly after each other, so that other work on the machine affects both equally.
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <string>
#include <vector>

// How much is measured.
struct effort {
    bool quick = false;  // a trial: fewer runs with less work
    int runs = 9;        // interleaved runs of each comparison
};

struct spread {
    double median = 0;
    double least = 0;
    double most = 0;
};

enum goal_kind { NO_GOAL, AT_MOST, AT_LEAST };

// One line of the report.
struct figure {
    std::string what;
    std::string ours;    // the agent's value, with its unit
    std::string beside;  // what it is compared with, and its value
    spread value;        // compared with the goal: a ratio, or a number of `unit`
    std::string unit;    // "×", "ms", ...
    goal_kind kind = NO_GOAL;
    double goal = 0;
};

typedef std::vector<figure> report;

double now_seconds();
double median_of(std::vector<double> values);
// share 0.99: the 99th percentile.
double percentile_of(std::vector<double> values, double share);
spread spread_of(const std::vector<double> &values);
// One value for each run: ours[i] / theirs[i].
std::vector<double> ratios_of(const std::vector<double> &ours, const std::vector<double> &theirs);
bool is_met(const figure &line);

// Text with printf's formats.
std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));
// "12.3 µs", "1.20 ms", "2.10 s": three significant digits.
std::string seconds_text(double seconds);

// Ends the program because a value cannot be measured. Its handsets end with it.
[[noreturn]] void give_up(const std::string &reason);

// The report in three forms.
void print_table(const report &lines);
void write_markdown(const report &lines, const std::string &path);
void write_chart(const report &lines, const std::string &path);

#endif
