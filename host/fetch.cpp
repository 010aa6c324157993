// Fetching a saved log set as one tar stream through the remote shell. On this side a set is dir/.SET.tar.part while it
// is on its way, and dir/SET once it has been checked and unpacked: that name appears by one rename, so it stands for a
// complete set. dir/SET/handset.txt, which no set on the card has, tells how the handset's clocks stood.

#include "fetch.h"

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "channel.h"
#include "command_table.h"
#include "message.h"
#include "remote.h"
#include "sets.h"
#include "transfer.h"

namespace {

constexpr int QUIET_S = 60;

int say_no_sets() {
    say("There is no saved log set under %s on the handset: check that the card is in, then run sa-host save-log.",
        SETS_DIRECTORY);
    return HOST_ERROR;
}

// Records how the handset's clocks stand, so that boot times and local times without a zone in the set can be told:
//   clock=2026-11-22T01:02:03.123Z   the time of day, in UTC
//   zone=Europe/Berlin +0100         the zone's name, if the handset has one, and its offset now
//   uptime=1234.56                   seconds since the boot
// A handset that cannot tell leaves a value empty. The set is complete without this file.
void record_clocks(const host_options &options, const std::string &path) {
    static const char command[] =
        "echo clock=$(date -u +%Y-%m-%dT%H:%M:%S.%N);read u x</proc/uptime;echo uptime=$u;"
        "echo zone=$(getprop persist.sys.timezone) $(date +%z)";
    std::string out;
    if (remote_output(options, command, QUIET_S, nullptr, &out) < 0) {
        return;
    }
    size_t nanoseconds = out.find('.') == std::string::npos ? out.size() : out.find('.') + 1;
    size_t end = out.find('\n');
    if (end != std::string::npos && end > nanoseconds + 3) {
        out.erase(nanoseconds + 3, end - nanoseconds - 3);
        out.insert(nanoseconds + 3, "Z");
    }
    FILE *file = fopen(path.c_str(), "we");
    bool is_written = file != nullptr && fputs(out.c_str(), file) >= 0;
    if (file == nullptr || fclose(file) != 0 || !is_written) {
        say("Cannot write %s: %s. The set itself is complete.", path.c_str(), strerror(errno));
    }
}

// One set on its way.
struct set_copy {
    std::string set;
    std::string dir;
    transfer stream;
};

int unpack(const host_options &options, const set_copy &job) {
    std::string fresh = job.dir + "/." + job.set + ".new";
    std::string out;
    int fd = job.stream.fd;
    run_local({"rm", "-rf", "--", fresh.c_str()}, fd, &out);
    lseek(fd, 0, SEEK_SET);
    if (mkdir(fresh.c_str(), 0777) != 0 ||
        run_local({"tar", "-x", "--no-same-owner", "--no-same-permissions", "-f", "-", "-C", fresh.c_str()}, fd,
                  &out) != 0) {
        say("Unpacking %s into %s failed. Make room, then run the same command again: only this step is left.",
            job.stream.part.c_str(), fresh.c_str());
        return HOST_ERROR;
    }
    std::string from = fresh + "/" + job.set;
    std::string to = job.dir + "/" + job.set;
    std::string former = fresh + "/former";  // a copy of the name from before the set was saved anew
    record_clocks(options, from + "/handset.txt");
    rename(to.c_str(), former.c_str());
    if (rename(from.c_str(), to.c_str()) != 0) {
        say("Cannot rename %s to %s: %s.", from.c_str(), to.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    run_local({"rm", "-rf", "--", fresh.c_str()}, fd, &out);
    return HOST_OK;
}

// A set named by hand may be any directory on the card, but its name goes into command lines of both sides.
bool check_set_name(const std::string &set) {
    static const char usual[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
    if (set.find_first_not_of(usual) == std::string::npos && set[0] != '-' && set[0] != '.') {
        return true;
    }
    say("\"%s\" is not the name of a log set: it looks like 2026_01_31_23_59_59.", set.c_str());
    return false;
}

// Brings one set, whatever is there under its name.
int bring(const host_options &options, const std::string &set, const std::string &dir) {
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
        say("Cannot make the directory %s: %s.", dir.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    set_copy job = {set, dir, transfer()};
    job.stream.title = set;
    job.stream.check = std::string("[ -d ") + SETS_DIRECTORY + "/" + set + " ]";
    job.stream.absent =
        text_of("There is no log set %s under %s on the handset. Leave the name out to fetch the newest.", set.c_str(),
                SETS_DIRECTORY);
    // What tar has to say goes nowhere: the child's three streams are one, and the stream must hold the archive alone.
    job.stream.command = std::string("cd ") + SETS_DIRECTORY + "&&busybox tar -c " + set + " 2>/dev/null";
    job.stream.part = dir + "/." + set + ".tar.part";
    int status = transfer_receive(options, &job.stream);
    if (status == HOST_OK) {
        status = unpack(options, job);
    }
    transfer_end(&job.stream, status == HOST_OK);
    if (status == HOST_OK) {
        print("%s/%s: %s fetched, size and checksum are right.\n", dir.c_str(), set.c_str(),
              in_bytes(job.stream.whole.size).c_str());
    }
    return status;
}

// The newest set on the card. Result: a host_status, with failures said.
int find_newest(const host_options &options, std::string *set) {
    std::vector<log_set> sets;
    int status = sets_list(options, &sets);
    if (status != HOST_OK) {
        return status;
    }
    if (sets.empty()) {
        return say_no_sets();
    }
    *set = sets.back().name;
    return HOST_OK;
}

}  // namespace

int fetch_set(const host_options &options, const std::string &set, const std::string &dir) {
    std::string chosen = set;
    if (set.empty()) {
        int status = find_newest(options, &chosen);
        if (status != HOST_OK) {
            return status;
        }
    } else if (!check_set_name(set)) {
        return HOST_REFUSED;
    }
    std::string complete = dir + "/" + chosen;
    if (access(complete.c_str(), F_OK) == 0) {
        print("%s is complete already.\n", complete.c_str());
        return HOST_OK;
    }
    return bring(options, chosen, dir);
}

int fetch_saved(const host_options &options, const std::string &dir) {
    std::vector<log_set> before;
    std::vector<log_set> after;
    request save;
    std::string why;
    request_build("save-log", command_find("save-log")->request, {}, &save, &why);
    int status = sets_list(options, &before);
    if (status == HOST_OK) {
        sets_flush_packets(options);
        status = channel_send(options, {save});
    }
    if (status == HOST_OK) {
        status = sets_list(options, &after);
    }
    if (status != HOST_OK) {
        return status;
    }
    if (after.empty()) {
        return say_no_sets();
    }
    // The name is the handset's local time, and its clock may have been set back: the new set need not sort last. No
    // new name at all: the last one was saved again within its second, so a copy that is here already is out of date.
    std::string made = after.back().name;
    for (const log_set &set : after) {
        bool is_old =
            std::any_of(before.begin(), before.end(), [&](const log_set &old) { return old.name == set.name; });
        made = is_old ? made : set.name;
    }
    return bring(options, made, dir);
}
