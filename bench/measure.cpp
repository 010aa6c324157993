// Statistics of measured values. No state.
#include "bench/measure.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>

double now_seconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double percentile_of(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    const size_t at = static_cast<size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
    return values[at];
}

double median_of(std::vector<double> values) {
    return percentile_of(std::move(values), 0.5);
}

spread spread_of(const std::vector<double> &values) {
    return {median_of(values), *std::min_element(values.begin(), values.end()),
            *std::max_element(values.begin(), values.end())};
}

std::vector<double> ratios_of(const std::vector<double> &ours, const std::vector<double> &theirs) {
    std::vector<double> ratios;
    for (size_t i = 0; i < ours.size(); i++) {
        ratios.push_back(ours[i] / theirs[i]);
    }
    return ratios;
}

bool is_met(const figure &line) {
    const double value = line.value.median;
    return line.kind == NO_GOAL || (line.kind == AT_MOST ? value <= line.goal : value >= line.goal);
}

std::string text_of(const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

std::string seconds_text(double seconds) {
    const char *unit = seconds < 1e-3 ? "µs" : seconds < 1 ? "ms" : "s";
    const double value = seconds < 1e-3 ? seconds * 1e6 : seconds < 1 ? seconds * 1e3 : seconds;
    return text_of("%.*f %s", value < 10 ? 2 : value < 100 ? 1 : 0, value, unit);
}

void give_up(const std::string &reason) {
    fprintf(stderr, "bench: %s\n", reason.c_str());
    exit(1);
}
