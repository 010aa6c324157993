// A log set in a directory of this machine. Owns no state.

#include "view/log_set.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "message.h"

namespace {

const char *const SET_PATTERN = "dddd_dd_dd_dd_dd_dd";  // the local time, year to second, as the agent names a set
constexpr int64_t BOOT_SLACK_US = 600 * SECOND_US;      // copying the logs takes time after the set got its name

// What save-log leaves in every set, in its order. The last takes longest, and what follows it may leave nothing.
const char *const SNAPSHOTS[] = {"getprop.log", "ifconfig.log", "ls_tmp.log",   "lsmod.log",
                                 "ps.log",      "route.log",    "bugreport.log"};

// The collectors' files begin with one of these.
const char *const COLLECTOR_FILES[] = {"logcat.log", "logcat-events.log", "logcat-radio.log",
                                       "kmsg.log",   "ipdata.pcap",       "sa.log"};

std::string path_of(const std::string &dir, const std::string &name) {
    return dir + "/" + name;
}

std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> names;
    DIR *list = opendir(dir.c_str());
    if (list == nullptr) {
        return names;
    }
    for (struct dirent *entry; (entry = readdir(list)) != nullptr;) {
        names.push_back(entry->d_name);
    }
    closedir(list);
    std::sort(names.begin(), names.end());
    return names;
}

bool begins_with(const std::string &text, const char *start) {
    return text.compare(0, strlen(start), start) == 0;
}

bool holds_logs(const std::string &dir) {
    for (const std::string &name : names_in(dir)) {
        for (const char *file : COLLECTOR_FILES) {
            if (begins_with(name, file)) {
                return true;
            }
        }
    }
    return false;
}

bool is_directory(const std::string &path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

off_t size_of_file(const std::string &path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string last_part(const std::string &path) {
    char *real = realpath(path.c_str(), nullptr);
    std::string full = real != nullptr ? real : path;
    free(real);
    return full.substr(full.rfind('/') + 1);
}

// "2026_01_31_23_59_59" as a time.
bool read_set_name(const std::string &name, int64_t *us) {
    std::string stamp = name;
    for (size_t i = 0; i < stamp.size(); ++i) {
        if (stamp[i] == '_') {
            stamp[i] = "--T::"[std::count(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(i), '_')];
        }
    }
    line_time time;
    if (stamp.size() != strlen(SET_PATTERN) || std::count(name.begin(), name.end(), '_') != 5 ||
        !time_read_date(stamp.data(), stamp.size(), &time) || time.used != stamp.size()) {
        return false;
    }
    *us = time.us;
    return true;
}

// The first bytes of a file, in which key=value lines are looked up.
std::string read_start(const std::string &path) {
    std::string text;
    FILE *file = fopen(path.c_str(), "re");
    if (file != nullptr) {
        text.resize(65536);
        text.resize(fread(&text[0], 1, text.size(), file));
        fclose(file);
    }
    return text;
}

// What stands between `start`, at the beginning of a line, and `end` or the line's end.
std::string value_of(const std::string &text, const std::string &start, char end) {
    size_t at = begins_with(text, start.c_str()) ? 0 : text.find("\n" + start);
    if (at == std::string::npos) {
        return "";
    }
    at += start.size() + (at > 0 || text[0] == '\n' ? 1 : 0);
    return text.substr(at, std::min(text.find(end, at), text.find('\n', at)) - at);
}

// The UTC time now, in the sense of this machine's clock and zone, as its local time.
int64_t machine_offset(time_t utc_s) {
    struct tm fields = {};
    localtime_r(&utc_s, &fields);
    return fields.tm_gmtoff;
}

time_t newest_change(const std::string &dir) {
    time_t newest = 0;
    for (const std::string &name : names_in(dir)) {
        struct stat st = {};
        if (name[0] != '.' && stat(path_of(dir, name).c_str(), &st) == 0) {
            newest = std::max(newest, st.st_mtime);
        }
    }
    return newest;
}

// The zone and the clocks. handset.txt is the file that `fetch` adds; getprop.log belongs to the set.
void read_clocks(const std::string &path, log_set *set) {
    std::string text = read_start(path + "/handset.txt");
    std::string zone = value_of(text, "zone=", '\n');
    std::string clock = value_of(text, "clock=", '\n');
    std::string uptime = value_of(text, "uptime=", '\n');
    line_time time;
    bool has_clock = time_read_date(clock.data(), clock.size(), &time);
    size_t blank = std::min(zone.find(' '), zone.size());
    std::string offset = blank < zone.size() ? zone.substr(blank + 1) : "";
    std::string property = value_of(read_start(path + "/getprop.log"), "[persist.sys.timezone]: [", ']');
    set->is_zone_known = zone_choose(zone.substr(0, blank), offset, time.us, &set->zone) ||
                         zone_choose(property, "", NO_TIME, &set->zone);
    time_t changed = newest_change(set->dir);
    if (!set->is_zone_known) {
        set->zone.offset_s = machine_offset(changed);
    }
    if (!read_set_name(set->name, &set->saved)) {
        set->saved = zone_local(set->zone, has_clock ? time.us : static_cast<int64_t>(changed) * SECOND_US);
    }
    double uptime_s = strtod(uptime.c_str(), nullptr);
    if (has_clock && uptime_s > 0 && uptime_s < 1e9) {
        set->boot = zone_local(set->zone, time.us - static_cast<int64_t>(uptime_s * 1e6));
        set->has_boot = set->boot <= set->saved + BOOT_SLACK_US;  // else it has rebooted since the set was saved
    }
}

std::string find_missing(const std::string &path) {
    if (!is_directory(path + "/log")) {
        return "log";
    }
    for (const char *name : SNAPSHOTS) {
        if (size_of_file(path + "/" + name) < 0) {
            return name;
        }
    }
    return size_of_file(path + "/bugreport.log") == 0 ? "text in bugreport.log" : "";
}

uint64_t size_of_tree(const std::string &path) {
    uint64_t size = 0;
    for (const std::string &name : names_in(path)) {
        std::string entry = path_of(path, name);
        struct stat st = {};
        if (name == "." || name == ".." || lstat(entry.c_str(), &st) != 0) {
            continue;
        }
        size += S_ISDIR(st.st_mode) ? size_of_tree(entry) : static_cast<uint64_t>(st.st_size);
    }
    return size;
}

// A set that `fetch` has begun: .SET.tar.part is the stream so far, .SET.tar.sum has its checksum and size.
bool describe_part(const std::string &path, const std::string &name, std::string *set, std::string *text) {
    static const char ending[] = ".tar.part";
    const size_t ending_len = sizeof(ending) - 1;
    int64_t saved = 0;
    size_t len = name.size();
    if (name[0] != '.' || len <= ending_len + 1 || name.compare(len - ending_len, ending_len, ending) != 0) {
        return false;
    }
    *set = name.substr(1, len - ending_len - 1);
    if (!read_set_name(*set, &saved)) {
        return false;
    }
    unsigned long long crc = 0;
    unsigned long long whole = 0;
    std::string done = in_bytes(static_cast<uint64_t>(std::max<off_t>(size_of_file(path + "/" + name), 0)));
    std::string sum = read_start(path + "/." + *set + ".tar.sum");
    bool is_known = sscanf(sum.c_str(), "%llu %llu", &crc, &whole) == 2;
    *text = text_of("%9s  incomplete: %s of %s fetched, fetch it again to go on", done.c_str(), done.c_str(),
                    is_known ? in_bytes(whole).c_str() : "an unknown size");
    return true;
}

bool describe_set(const std::string &path, const std::string &name, std::string *set, std::string *text) {
    int64_t saved = 0;
    *set = name;
    if (!read_set_name(name, &saved) || !is_directory(path + "/" + name)) {
        return describe_part(path, name, set, text);
    }
    std::string missing = find_missing(path + "/" + name);
    *text = text_of("%9s  %s%s", in_bytes(size_of_tree(path + "/" + name)).c_str(),
                    missing.empty() ? "complete" : "incomplete: it has no ", missing.c_str());
    return true;
}

// The number behind `base` in `name`, or -1.
long number_behind(const std::string &name, const std::string &base) {
    if (!begins_with(name, base.c_str()) || name.size() == base.size() || name.size() > base.size() + 6 ||
        name.find_first_not_of("0123456789", base.size()) != std::string::npos) {
        return -1;
    }
    return strtol(name.c_str() + base.size(), nullptr, 10);
}

}  // namespace

bool log_set_read(const std::string &path, log_set *set) {
    set->dir = holds_logs(path + "/log") ? path + "/log" : path;
    if (!holds_logs(set->dir)) {
        return false;
    }
    set->name = last_part(path);
    read_clocks(path, set);
    set->missing = set->dir == path ? "" : find_missing(path);  // the log directory by itself is no set
    return true;
}

std::vector<std::string> log_set_numbered(const log_set &set, const std::string &base) {
    std::vector<std::pair<long, std::string>> found;
    for (const std::string &name : names_in(set.dir)) {
        long number = number_behind(name, base);
        if (number >= 0) {
            found.emplace_back(number, set.dir + "/" + name);
        }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> paths;
    for (const auto &row : found) {
        paths.push_back(row.second);
    }
    return paths;
}

std::vector<std::string> log_set_generations(const log_set &set, const std::string &base) {
    std::vector<std::string> paths = log_set_numbered(set, base + ".");
    std::reverse(paths.begin(), paths.end());
    std::string live = set.dir + "/" + base;
    if (access(live.c_str(), F_OK) == 0) {
        paths.push_back(live);
    }
    return paths;
}

int log_set_list(const std::string &path) {
    std::vector<std::string> lines;
    std::string set;
    std::string text;
    for (const std::string &name : names_in(path)) {
        if (describe_set(path, name, &set, &text)) {
            lines.push_back(text_of("%s  %s\n", set.c_str(), text.c_str()));
        }
    }
    std::sort(lines.begin(), lines.end());
    for (const std::string &line : lines) {
        print_text(line);
    }
    return static_cast<int>(lines.size());
}
