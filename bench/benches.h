// The groups of measurements. Each boots the handsets that it needs and adds its lines to the report.
#ifndef BENCH_BENCHES_H
#define BENCH_BENCHES_H

#include "bench/measure.h"

void bench_request(const effort &how, report *lines);
void bench_line(const effort &how, report *lines);
void bench_lookup(const effort &how, report *lines);
void bench_kmsg(const effort &how, report *lines);
void bench_boot(const effort &how, report *lines);
void bench_shell(const effort &how, report *lines);
void bench_adb(const effort &how, report *lines);
void bench_save_log(const effort &how, report *lines);
void bench_idle(const effort &how, report *lines);
void bench_memory(const effort &how, report *lines);
void bench_size(const effort &how, report *lines);
void bench_scale(const effort &how, report *lines);

// Compares the instructions of the hot paths with the table at `path` and prints them; `record` writes the table again.
void bench_instructions(const std::string &path, bool record);

#endif
