// Saving a large log set, beside a shell script of the same command lines. Both write to the same card, which is emptied
// in between. No state.
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kScript[] = R"(D=/storage/real_sd/logs/by_script
mkdir /storage/real_sd/logs
mkdir $D
cat /proc/driver/codec > $D/zr3360regs.log
busybox cp /data/rec_dump.txt  $D -R
busybox cp /data/play_out_dump.txt  $D -R
busybox cp /data/local/log $D/ -R
busybox cp /data/anr $D -R
getprop > $D/getprop.log
busybox ifconfig > $D/ifconfig.log
ls /tmp > $D/ls_tmp.log
lsmod > $D/lsmod.log
ps > $D/ps.log
busybox route > $D/route.log
bugreport > $D/bugreport.log
busybox cp /data/tombstones  $D -R
)";

static void make_log_set(desk *h, size_t bytes) {
    const int files = 10;
    const std::string text(bytes / files, 'l');
    for (int i = 0; i < files; i++) {
        if (!desk_write_file(h, "/data/local/log/logcat.log." + std::to_string(i), text)) {
            give_up(desk_error());
        }
    }
}

// Leaves the same card to both: empty, nothing in flight.
static void empty_card(desk *h) {
    desk_remove(h, "/storage/real_sd/logs");
    run_shell(h, "sync");
}

static double save_seconds(int channel) {
    const double start = now_seconds();
    request_ok(channel, "AT SA+SAVE_LOG\r");
    return now_seconds() - start;
}

static double script_seconds(desk *h) {
    return run_inside(h, {"program", "/system/bin/sh", "/data/save.sh"}).at(0).at(0);
}

void bench_save_log(const effort &how, report *lines) {
    desk_options options = without_collectors();
    options.data_size = 512u << 20;
    options.card_size = 512u << 20;
    desk *h = boot_handset(options);
    make_log_set(h, how.quick ? 20000000 : 200000000);
    desk_write_file(h, "/data/save.sh", kScript);
    const int channel = open_terminal(h, "/dev/ttyCMD0");
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int run = -1; run < how.runs; run++) {
        empty_card(h);
        const double saved = save_seconds(channel);
        empty_card(h);
        const double scripted = script_seconds(h);
        if (run >= 0) {  // the one before warms up
            ours.push_back(saved);
            theirs.push_back(scripted);
        }
    }
    figure line;
    line.what = "save of a log set of 200 MB";
    line.ours = seconds_text(median_of(ours));
    line.beside = "shell script " + seconds_text(median_of(theirs));
    line.value = spread_of(ratios_of(ours, theirs));
    line.unit = "×";
    line.kind = AT_MOST;
    line.goal = 1.02;
    lines->push_back(line);
    close(channel);
    desk_end(h);
}
