#pragma once
// A log set in a directory of this machine: where its files are, when it was saved, and whether it is complete.

#include <string>
#include <vector>

#include "view/log_time.h"

struct log_set {
    std::string name;   // last part of its path
    std::string dir;    // where the collectors' files are: the set's directory "log", or the directory itself
    int64_t saved = 0;  // when the set was saved; no line is much later
    bool has_boot = false;
    int64_t boot = 0;  // when the handset had booted, as recorded by `fetch`
    handset_zone zone;
    bool is_zone_known = false;  // false: `zone` is this machine's
    std::string missing;         // what save-log should have left and is not there; empty: the set is complete
};

// Reads what the directory `path` tells. Result: false, without a word, when it holds no collector's file.
bool log_set_read(const std::string &path, log_set *set);

// The files of one collector: `base` and its numbered generations ("logcat.log.1"), oldest first.
std::vector<std::string> log_set_generations(const log_set &set, const std::string &base);

// The files whose names are `base` and a number ("ipdata.pcap0"), by number.
std::vector<std::string> log_set_numbered(const log_set &set, const std::string &base);

// Prints one line for each set in the directory `path`: name, size, whether it is complete. Result: how many there are.
int log_set_list(const std::string &path);
