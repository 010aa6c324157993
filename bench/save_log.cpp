// Saving a large log set, compared with the same command lines in one shell script, and with each of them in its own
// shell, as the agent runs them. All write to the same card, which is emptied in between. No state.
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kScript[] = "/data/save.sh";
static const int kTries = 3;  // attempts in each run, because the time of some programs varies
static const char kDestination[] = "/storage/real_sd/logs/2026_11_21_10_00_00";

// The command lines that the agent runs in this handset: first text, destination, second text.
static const char *const kLines[][2] = {
    {"cat /proc/driver/codec > ", "/zr3360regs.log"},
    {"busybox cp /data/rec_dump.txt  ", " -R"},
    {"busybox cp /data/play_out_dump.txt  ", " -R"},
    {"busybox cp /data/local/log ", "/ -R"},
    {"busybox cp /data/anr ", " -R"},
    {"getprop > ", "/getprop.log"},
    {"busybox ifconfig > ", "/ifconfig.log"},
    {"ls /tmp > ", "/ls_tmp.log"},
    {"lsmod > ", "/lsmod.log"},
    {"ps > ", "/ps.log"},
    {"busybox route > ", "/route.log"},
    {"bugreport > ", "/bugreport.log"},
    {"busybox cp /data/tombstones  ", " -R"},
};

static std::string script() {
    std::string text;
    for (const auto &line : kLines) {
        text += std::string(line[0]) + kDestination + line[1] + "\n";
    }
    return text;
}

static void make_log_set(desk *h, size_t bytes) {
    const int files = 10;
    const std::string text(bytes / files, 'l');
    for (int i = 0; i < files; i++) {
        if (!desk_write_file(h, "/data/local/log/logcat.log." + std::to_string(i), text)) {
            give_up(desk_error());
        }
    }
}

// Empties the card and waits until everything is written, so that both have the same conditions.
static void empty_card(desk *h) {
    desk_remove(h, "/storage/real_sd/logs");
    run_shell(h, "sync");
}

static double save_seconds(int channel) {
    const double start = now_seconds();
    request_ok(channel, "AT SA+SAVE_LOG\r");
    return now_seconds() - start;
}

// The agent creates the directory itself; for the others it is created before.
static double others_seconds(desk *h, const std::vector<std::string> &words) {
    empty_card(h);
    desk_make_dir(h, kDestination, 0777);
    return run_inside(h, words).at(0).at(0);
}

static figure line_of(const char *peer, const std::vector<double> &ours, const std::vector<double> &theirs) {
    figure line;
    line.what = "save of a log set of 200 MB";
    line.ours = seconds_text(median_of(ours));
    line.beside = peer + seconds_text(median_of(theirs));
    line.value = spread_of(ratios_of(ours, theirs));
    line.unit = "×";
    line.kind = AT_MOST;
    line.goal = 1.02;
    return line;
}

void bench_save_log(const effort &how, report *lines) {
    desk_options options = without_collectors();
    options.data_size = 512u << 20;
    options.sd_card_size = 512u << 20;
    desk *h = boot_handset(options);
    make_log_set(h, how.quick ? 20000000 : 200000000);
    desk_write_file(h, kScript, script());
    const int channel = open_channel(h);
    std::vector<double> ours;
    std::vector<double> scripts;
    std::vector<double> floors;
    for (int run = 0; run < how.runs; run++) {
        std::vector<double> tries[3];
        for (int i = 0; i < kTries; i++) {
            empty_card(h);
            tries[0].push_back(save_seconds(channel));
            tries[1].push_back(others_seconds(h, {"program", "/system/bin/sh", kScript}));
            tries[2].push_back(others_seconds(h, {"system", kScript}));
        }
        ours.push_back(median_of(tries[0]));
        scripts.push_back(median_of(tries[1]));
        floors.push_back(median_of(tries[2]));
    }
    lines->push_back(line_of("shell script ", ours, scripts));
    lines->push_back(line_of("floor, a shell for each line ", ours, floors));
    close(channel);
    desk_end(h);
}
