// What is on the handset's card, read by one remote command. Owns no state.

#include "sets.h"

#include <algorithm>
#include <cstring>

#include "message.h"
#include "remote.h"

namespace {

const char *const SET_PATTERN = "dddd_dd_dd_dd_dd_dd";  // year to second, as the agent names a set
constexpr int QUIET_S = 60;
constexpr int FLUSH_TIMEOUT_S = 10;

// One line a set: name, KiB, state. The bug report is the last file that every save makes. While a set is being saved, a
// process with its path among the arguments runs; the brackets keep the pattern from finding itself.
const char *const LIST_SCRIPT =
    "cd /storage/real_sd/logs 2>/dev/null||exit 0;for s in ????_??_??_??_??_??;do [ -d $s ]||continue;c=incomplete;"
    "[ -s $s/bugreport.log ]&&c=complete;"
    "grep -l \"logs/${s%?}[${s#${s%?}}]\" /proc/[0-9]*/cmdline 2>/dev/null|grep -q .&&c=saving;"
    "set -- $(du -sk $s);echo $s $1 $c;done";

// A tcpdump of a version that does not catch the signal would end: SigCgt has the caught ones, SIGUSR2 is 0x800. The
// kernel hands packets over in blocks of up to a second.
const char *const FLUSH_SCRIPT =
    "cd /proc;l=$(grep -l \"/ipdata.pca[p]\" [0-9]*/cmdline 2>/dev/null);[ \"$l\" ]||exit 0;sleep 1.2;"
    "for f in $l;do p=${f%/*};while read k v;do [ \"$k\" = SigCgt: ]&&[ $((0x${v#????????????}&0x800)) != 0 ]&&"
    "kill -USR2 $p;done<$p/status;done;sleep 0.1;exit 0";

bool is_set_name(const std::string &name) {
    size_t len = strlen(SET_PATTERN);
    if (name.size() != len) {
        return false;
    }
    for (size_t i = 0; i < len; ++i) {
        bool is_digit = name[i] >= '0' && name[i] <= '9';
        if (SET_PATTERN[i] == 'd' ? !is_digit : name[i] != SET_PATTERN[i]) {
            return false;
        }
    }
    return true;
}

bool parse_set(const std::string &line, log_set *set) {
    char name[32] = "";
    char state[16] = "";
    unsigned long long kib = 0;
    if (sscanf(line.c_str(), "%31s %llu %15s", name, &kib, state) != 3 || !is_set_name(name)) {
        return false;
    }
    set->name = name;
    set->bytes = kib * 1024;
    set->state = strcmp(state, "complete") == 0 ? SET_COMPLETE
                 : strcmp(state, "saving") == 0 ? SET_BEING_SAVED
                                                : SET_INCOMPLETE;
    return true;
}

const char *state_text(set_state state) {
    return state == SET_COMPLETE ? "complete" : state == SET_BEING_SAVED ? "being saved" : "incomplete";
}

// "2026_01_31_23_59_59" with these two marks within the date and the time and between them.
std::string time_of(const std::string &name, char between) {
    std::string text = name;
    text[4] = text[7] = '-';
    text[10] = between;
    text[13] = text[16] = ':';
    return text;
}

void print_json_form(const std::vector<log_set> &sets) {
    print("[");
    for (const log_set &set : sets) {
        print("%s{\"set\": \"%s\", \"time\": \"%s\", \"bytes\": %llu, \"state\": \"%s\"}",
              &set == sets.data() ? "" : ",\n ", set.name.c_str(), time_of(set.name, 'T').c_str(),
              static_cast<unsigned long long>(set.bytes), state_text(set.state));
    }
    print("]\n");
}

}  // namespace

int sets_list(const host_options &options, std::vector<log_set> *sets) {
    std::string out;
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : QUIET_S;
    int status = remote_output(options, LIST_SCRIPT, quiet_s, nullptr, &out);
    sets->clear();
    for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1) {
        log_set set;
        if (parse_set(out.substr(at, end - at), &set)) {
            sets->push_back(set);
        }
    }
    std::sort(sets->begin(), sets->end(), [](const log_set &a, const log_set &b) { return a.name < b.name; });
    return status < 0 ? HOST_NO_WAY : HOST_OK;
}

int sets_show(const host_options &options) {
    std::vector<log_set> sets;
    int status = sets_list(options, &sets);
    if (status != HOST_OK) {
        return status;
    }
    if (options.is_json) {
        print_json_form(sets);
        return HOST_OK;
    }
    for (const log_set &set : sets) {
        print("%s  %s  %9s  %s\n", set.name.c_str(), time_of(set.name, ' ').c_str(), in_bytes(set.bytes).c_str(),
              state_text(set.state));
    }
    if (sets.empty()) {
        say("There is no saved log set under %s on the handset.", SETS_DIRECTORY);
    }
    return HOST_OK;
}

void sets_flush_packets(const host_options &options) {
    host_options bounded = options;
    bounded.timeout_s = FLUSH_TIMEOUT_S;
    bounded.is_patient = false;
    std::string out;
    if (remote_output(bounded, FLUSH_SCRIPT, FLUSH_TIMEOUT_S, nullptr, &out) < 0) {
        say("The packet capture could not be flushed: the newest packets may be missing in the set.");
    }
}
