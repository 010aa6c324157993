// The agent's state at a glance. A script on the handset prints what it finds as key=value lines; this side reads the
// log property as the agent does and says what it means. Owns no state.

#include "status.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <vector>

#include "message.h"
#include "remote.h"

namespace {

constexpr int QUIET_S = 60;
constexpr int TICKS_PER_S = 100;                  // of /proc/PID/stat, on every Linux
constexpr unsigned long long RESERVE = 3u << 20;  // below this the agent deletes a file of /data/.protect at its start
constexpr unsigned long long SPACE_KIB = 256000;  // collectors start above 5 per cent or this, whichever is less
constexpr size_t SLOT_SIZE = 40;                  // of the auto-start list
const char *const DEFAULT_PROPERTY = "/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,I6,5,5120";

// The shell's parent is the agent. The patterns do not match themselves in this script's own command line.
const char *const SCRIPT =
    "p=$PPID;echo pid=$p;read u x</proc/uptime;echo uptime=$u;echo clock=$(date \"+%s %z\");"
    "read s</proc/$p/stat;echo stat=${s##*) };"
    "d=$(getprop persist.sys.install.zr.log);echo property=$d;d=${d%%,*};d=${d:-/data/local/log};"
    "h(){ echo $1=$(od -An -v -tx1 $2);};h switches /data/zr-qel-sa.set;h list /data/zr-qel-sa/auto-start.lst;"
    "stat -c saved=%Y /data/zr-qel-sa.set;stat -f -c \"space=%s %b %a\" /data;"
    "stat -c \"file=%s %n\" $d/kmsg.log* $d/ipdata.pcap* $d/logcat*.log* $d/emsd.log*;"
    "stat -c \"panic=%s %Y %n\" /data/log/SystemLog/apanic_*;"
    "ls -l /proc/$p/fd|grep -q /proc/kmsg&&echo runs=kmsg.log;cd /proc;"
    "for f in ipdata.pca[p] logcat.lo[g] logcat-events.lo[g] logcat-radio.lo[g];do "
    "grep -l \"/$f\" [0-9]*/cmdline|grep -q .&&echo runs=$f;done";

typedef std::multimap<std::string, std::string> findings;

// One collector of the log property, by its place there.
struct collector {
    int place;
    std::string name;
    std::string file;  // its files begin with this name
    unsigned count = 0;
    unsigned long long size = 0;  // bytes a file
    bool runs = false;
    unsigned long long files = 0;
    unsigned long long bytes = 0;
};

struct record {
    std::string name;
    unsigned long long bytes;
    time_t time;
};

struct agent_state {
    std::string pid;
    time_t since = 0;
    time_t now = 0;
    int zone_s = 0;  // seconds east of UTC
    bool is_saved = false;
    bool kernel_log = false;
    bool dmesg_log = false;
    bool packets = false;
    std::string property;
    bool is_default = false;
    std::string directory;
    std::string problem;  // why the property starts nothing
    std::vector<collector> collectors;
    unsigned long long total = 0;  // bytes of /data
    unsigned long long free = 0;
    std::vector<std::string> auto_start;
    std::vector<record> panics;
};

// ---- Reading

std::string first_of(const findings &found, const char *key) {
    auto at = found.find(key);
    return at != found.end() ? at->second : std::string();
}

findings parse(const std::string &text) {
    findings found;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        std::string line = text.substr(at, end - at);
        size_t equals = line.find('=');
        if (equals != std::string::npos) {
            found.emplace(line.substr(0, equals), line.substr(equals + 1));
        }
    }
    return found;
}

std::string from_hex(const std::string &text) {
    std::string bytes;
    const char *at = text.c_str();
    char *end = nullptr;
    for (unsigned long value; value = strtoul(at, &end, 16), end != at; at = end) {
        bytes += static_cast<char>(value);
    }
    return bytes;
}

void read_times(const findings &found, agent_state *state) {
    long long clock = 0;
    int zone = 0;
    unsigned long long start = 0;
    sscanf(first_of(found, "clock").c_str(), "%lld %d", &clock, &zone);
    // Field 22 of the process's stat line, of which this is the rest from field 3 on.
    sscanf(first_of(found, "stat").c_str(),
           "%*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu", &start);
    double uptime = strtod(first_of(found, "uptime").c_str(), nullptr);
    state->now = static_cast<time_t>(clock);
    state->since = static_cast<time_t>(static_cast<double>(clock) - uptime + static_cast<double>(start) / TICKS_PER_S);
    state->zone_s = zone / 100 * 3600 + zone % 100 * 60;
}

// The settings file keeps the last choices: kernel, dmesg, packets as raw bytes with blanks between. The agent starts with
// all switches off and does not read it.
void read_switches(const findings &found, agent_state *state) {
    std::string bytes = from_hex(first_of(found, "switches"));
    long long saved = strtoll(first_of(found, "saved").c_str(), nullptr, 10);
    state->is_saved = bytes.size() == 5 && saved >= static_cast<long long>(state->since);
    if (state->is_saved) {
        state->kernel_log = bytes[0] != 0;
        state->dmesg_log = bytes[2] != 0;
        state->packets = bytes[4] != 0;
    }
}

std::vector<std::string> tokens_of(const std::string &text) {
    std::vector<std::string> tokens;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find(',', at), text.size());
        if (end > at) {
            tokens.push_back(text.substr(at, end - at));
        }
        at = end + 1;
    }
    return tokens;
}

// For packets and kernel messages the place says what the collector is, for logcat the token does.
collector collector_of(int place, const std::string &token) {
    static const struct {
        const char *token;
        const char *name;
        const char *file;
    } logcats[] = {{"I1", "EMSD", "emsd.log"},
                   {"I4", "main", "logcat.log"},
                   {"I5", "events", "logcat-events.log"},
                   {"I6", "radio", "logcat-radio.log"}};
    collector made = {place,
                      place == 2   ? "packets"
                      : place == 3 ? "kernel"
                                   : "unknown " + token,
                      place == 2   ? "ipdata.pcap"
                      : place == 3 ? "kmsg.log"
                                   : ""};
    for (const auto &row : logcats) {
        if (place > 3 && token == row.token) {
            made.name = row.name;
            made.file = row.file;
        }
    }
    return made;
}

void read_property(const findings &found, agent_state *state) {
    state->property = first_of(found, "property");
    state->is_default = state->property.empty();
    std::vector<std::string> tokens = tokens_of(state->is_default ? DEFAULT_PROPERTY : state->property);
    state->directory = tokens.empty() ? "" : tokens[0];
    for (int place = 1; place <= 6; ++place) {
        size_t at = static_cast<size_t>(place) * 3 - 2;
        if (at + 2 >= tokens.size()) {
            state->problem = text_of("it ends before the triple of place %d, so that no collector starts", place);
            return;
        }
        if (place == 1) {
            continue;  // reserved, never started
        }
        collector made = collector_of(place, tokens[at]);
        made.count = static_cast<unsigned>(strtoul(tokens[at + 1].c_str(), nullptr, 10));
        unsigned long long size = strtoull(tokens[at + 2].c_str(), nullptr, 10);
        made.size = place != 2 ? size * 1024 : size == 0 ? 0 : (size <= 999 ? 1 : size / 1000 + 1) * 1000000;
        state->collectors.push_back(made);
    }
}

// "kmsg.log", "kmsg.log.3" and "ipdata.pcap0" are files of a collector, "logcat-events.log" is none of logcat.log's.
bool is_file_of(const collector &of, const std::string &path) {
    std::string name = path.substr(path.rfind('/') + 1);
    return !of.file.empty() && name.compare(0, of.file.size(), of.file) == 0 &&
           name.find_first_not_of(".0123456789", of.file.size()) == std::string::npos;
}

void read_collectors(const findings &found, agent_state *state) {
    for (collector &each : state->collectors) {
        auto files = found.equal_range("file");
        for (auto at = files.first; at != files.second; ++at) {
            if (is_file_of(each, at->second)) {
                ++each.files;
                each.bytes += strtoull(at->second.c_str(), nullptr, 10);
            }
        }
        auto running = found.equal_range("runs");
        for (auto at = running.first; at != running.second; ++at) {
            std::string file = at->second;
            file.erase(std::remove_if(file.begin(), file.end(), [](char c) { return c == '[' || c == ']'; }),
                       file.end());
            each.runs = each.runs || file == each.file;
        }
    }
}

void read_rest(const findings &found, agent_state *state) {
    unsigned long long block = 0;
    unsigned long long blocks = 0;
    unsigned long long available = 0;
    sscanf(first_of(found, "space").c_str(), "%llu %llu %llu", &block, &blocks, &available);
    state->total = block * blocks;
    state->free = block * available;
    std::string slots = from_hex(first_of(found, "list"));
    for (size_t at = 0; at < slots.size(); at += SLOT_SIZE) {
        std::string name = slots.substr(at, SLOT_SIZE);
        name.resize(strnlen(name.data(), name.size()));
        if (!name.empty()) {
            state->auto_start.push_back(name);
        }
    }
    auto panics = found.equal_range("panic");
    for (auto at = panics.first; at != panics.second; ++at) {
        record one = {at->second.substr(at->second.rfind('/') + 1), 0, 0};
        long long time = 0;
        sscanf(at->second.c_str(), "%llu %lld", &one.bytes, &time);
        one.time = static_cast<time_t>(time);
        state->panics.push_back(one);
    }
}

// ---- Printing

unsigned long long space_threshold(const agent_state &state) {
    return std::min(state.total / 1024 * 5 / 100, SPACE_KIB) * 1024;
}

std::string local_time(const agent_state &state, time_t time) {
    time_t local = time + state.zone_s;
    struct tm parts = {};
    char text[32];
    gmtime_r(&local, &parts);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    int minutes = state.zone_s / 60;
    return text_of("%s %c%02d%02d", text, minutes < 0 ? '-' : '+', std::abs(minutes) / 60, std::abs(minutes) % 60);
}

std::string utc_time(time_t time) {
    struct tm parts = {};
    char text[32];
    gmtime_r(&time, &parts);
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

const char *on_off(bool is_on) {
    return is_on ? "on" : "off";
}

void print_collectors(const agent_state &state) {
    if (!state.problem.empty()) {
        print("Collectors:     none: %s\n", state.problem.c_str());
        return;
    }
    print("Collectors:     in %s\n", state.directory.c_str());
    for (const collector &each : state.collectors) {
        bool is_off = each.count == 0 || each.size == 0;
        std::string limit = is_off ? "off" : text_of("%u x %s", each.count, in_bytes(each.size).c_str());
        print("  %-12s  %-12s  limit %-14s  %llu file%s, %s\n", each.name.c_str(), each.runs ? "runs" : "does not run",
              limit.c_str(), each.files, each.files == 1 ? "" : "s", in_bytes(each.bytes).c_str());
    }
}

void print_text_form(const agent_state &state) {
    print("Agent:          process %s, up since %s (%s)\n", state.pid.c_str(), local_time(state, state.since).c_str(),
          in_time(static_cast<uint64_t>(std::max<time_t>(state.now - state.since, 0))).c_str());
    print("Switches:       kernel-log %s, dmesg-log %s, packets %s%s\n", on_off(state.kernel_log),
          on_off(state.dmesg_log), on_off(state.packets), state.is_saved ? "" : " (none switched since the start)");
    print("Property:       persist.sys.install.zr.log %s\n",
          state.is_default ? "is unset: the default counts" : ("= " + state.property).c_str());
    print_collectors(state);
    print("Free on /data:  %s of %s; collectors start above %s%s\n", in_bytes(state.free).c_str(),
          in_bytes(state.total).c_str(), in_bytes(space_threshold(state)).c_str(),
          state.free < RESERVE                  ? ", and the next start of the agent deletes a file of /data/.protect"
          : state.free < space_threshold(state) ? ": they do not start now"
                                                : "");
    std::string names;
    for (const std::string &name : state.auto_start) {
        names += (names.empty() ? "" : ", ") + name;
    }
    print("Auto-start:     %s\n", names.empty() ? "none" : names.c_str());
    print("Panic records:  %s\n", state.panics.empty() ? "none" : "");
    for (const record &one : state.panics) {
        print("  %-20s  %s  %s\n", one.name.c_str(), local_time(state, one.time).c_str(), in_bytes(one.bytes).c_str());
    }
}

// Items as the elements of a JSON list.
std::string json_list(const std::vector<std::string> &items) {
    std::string list;
    for (const std::string &item : items) {
        list += (list.empty() ? "" : ", ") + item;
    }
    return "[" + list + "]";
}

void print_json_form(const agent_state &state) {
    std::vector<std::string> collectors;
    for (const collector &each : state.collectors) {
        collectors.push_back(
            text_of("{\"place\": %d, \"name\": %s, \"runs\": %s, \"files_limit\": %u, "
                    "\"file_bytes_limit\": %llu, \"files\": %llu, \"bytes\": %llu}",
                    each.place, json_quoted(each.name).c_str(), each.runs ? "true" : "false", each.count, each.size,
                    each.files, each.bytes));
    }
    std::vector<std::string> names;
    for (const std::string &name : state.auto_start) {
        names.push_back(json_quoted(name));
    }
    std::vector<std::string> panics;
    for (const record &one : state.panics) {
        panics.push_back(text_of("{\"name\": %s, \"bytes\": %llu, \"time\": \"%s\"}", json_quoted(one.name).c_str(),
                                 one.bytes, utc_time(one.time).c_str()));
    }
    print("{\"agent\": {\"pid\": %ld, \"since\": \"%s\"},\n", strtol(state.pid.c_str(), nullptr, 10),
          utc_time(state.since).c_str());
    print(" \"switches\": {\"kernel_log\": %s, \"dmesg_log\": %s, \"packets\": %s},\n",
          state.kernel_log ? "true" : "false", state.dmesg_log ? "true" : "false", state.packets ? "true" : "false");
    print(" \"property\": %s,\n \"directory\": %s,\n \"collectors\": %s,\n",
          state.is_default ? "null" : json_quoted(state.property).c_str(), json_quoted(state.directory).c_str(),
          json_list(collectors).c_str());
    print(" \"space\": {\"total\": %llu, \"free\": %llu, \"collect_above\": %llu, \"reserve_below\": %llu},\n",
          state.total, state.free, space_threshold(state), RESERVE);
    print(" \"auto_start\": %s,\n \"panic_records\": %s}\n", json_list(names).c_str(), json_list(panics).c_str());
}

}  // namespace

int status_show(const host_options &options) {
    std::string out;
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : QUIET_S;
    int status = remote_output(options, "{ " + std::string(SCRIPT) + ";} 2>/dev/null;:", quiet_s, nullptr, &out);
    if (status < 0) {
        return HOST_NO_WAY;
    }
    findings found = parse(out);
    agent_state state;
    state.pid = first_of(found, "pid");
    if (state.pid.empty()) {
        say("The handset's shell gave no account of the agent.");
        return HOST_ERROR;
    }
    read_times(found, &state);
    read_switches(found, &state);
    read_property(found, &state);
    read_collectors(found, &state);
    read_rest(found, &state);
    options.is_json ? print_json_form(state) : print_text_form(state);
    return HOST_OK;
}
