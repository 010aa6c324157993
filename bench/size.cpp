// The size of the stripped agent, compared with dropbear. No state.
#include <stdlib.h>
#include <sys/stat.h>

#include "bench/benches.h"

static double kib_of_file(const std::string &path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        give_up(path + " is missing");
    }
    return static_cast<double>(st.st_size) / 1024;
}

void bench_size(const effort &how, report *lines) {
    (void)how;
    const std::string stripped = std::string(BENCH_AGENT) + ".stripped";
    if (system(("strip -o " + stripped + " " + BENCH_AGENT).c_str()) != 0) {
        give_up("strip is missing");
    }
    const double ours = kib_of_file(stripped);
    figure line;
    line.what = "size of the stripped agent";
    line.ours = text_of("%.0f KiB", ours);
    line.beside = text_of("dropbear %.0f KiB", kib_of_file("/usr/sbin/dropbear"));
    line.value = {ours, ours, ours};
    line.unit = "KiB";
    line.kind = AT_MOST;
    line.goal = 160;
    lines->push_back(line);
}
