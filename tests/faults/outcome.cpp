// Which ending is foreseen after which fault, and what came of a run in words. No state.
#include <fnmatch.h>

#include <algorithm>

#include "tests/faults/acts.h"

using texts = std::vector<const char *>;

// Patterns as fnmatch has them. 32-bit code calls statfs64, setuid32, setgid32.
struct foreseen {
    const char *ending;
    texts calls;              // the title of the call that failed first
    texts stages;             // any of these
    const char *error = "*";  // "EINTR 1+"
};

// Requests on the command channel.
static const texts kRequests = {"AT", "+*"};
static const texts kProcesses = {"openat /proc*", "newfstatat /proc", "getdents64 /proc", "read /proc*"};
static const texts kShellCommand = {"mmap of a stack", "clone3 of a shell command", "wait4"};
// What a collector needs; without room or its directory there is none of them.
static const texts kCollectors = {"mmap of a stack",
                                  "mprotect",
                                  "clone*",
                                  "openat /dev/null",
                                  "access /system/*",
                                  "statfs* /data",
                                  "openat /data/local/log/kmsg.log",
                                  "openat /proc/kmsg",
                                  "access /data/local/log",
                                  "mkdir /data/local/log",
                                  "chown /data/local/log"};
static const texts kCollectorChild = {"setuid*", "setgid*", "dup2 /dev/null", "execve /system/*"};
static const texts kThread = {"mmap of a stack", "mprotect", "clone3*"};
// The command channel's pseudo-terminal is made; a name that cannot be removed is in the way of the next one.
static const texts kChannel = {"openat /dev/ptmx", "ioctl * /dev/ptmx",   "symlink /dev/ttyCMD0",
                               "read /dev/ptmx",   "unlink /dev/ttyCMD0", "chmod /dev/ttyCMD0"};
// The listener's: nobody looks whether its attributes could be set.
static const texts kListener = {"openat /dev/ptmx", "ioctl TIOC* /dev/ptmx", "symlink /dev/ttysa1", "read /dev/ptmx",
                                "unlink /dev/ttysa1"};
static const texts kConnection = {"openat /dev/ptmx", "ioctl TIOC* /dev/ptmx", "read /dev/ptmx", "write /dev/ptmx",
                                  "clone (fork)"};
static const texts kInit = {"socket", "connect /dev/socket/property_service", "writev*", "recvfrom*"};
static const char kChannelStart[] = "start, command thread";
static const char kHangUp[] = "the host leaves the command channel";
static const char kChildShell[] = "child of the remote shell";

static const std::vector<foreseen> &foreseen_endings() {
    static const std::vector<foreseen> all = {
        // What a request is answered. A shell's wait that is interrupted goes on, and so it does for as long as it is.
        {"no answer", {"read /dev/ptmx", "write /dev/ptmx"}, kRequests},
        {"no answer", {"wait4"}, kRequests, "EINTR *+"},
        {"no answer", kChannel, {kChannelStart}},
        {"no answer", {"write /dev/ptmx"}, {kChannelStart}},
        {"not answered again", kChannel, {kHangUp}},
        {"QUERY_SERVICE: 0 OK", kProcesses, {"+QUERY_SERVICE*"}},
        {"ERROR", kShellCommand, {"+START_SERVICE=\"zr-qel-mla3\"", "+SYSTEM*"}},
        {"ERROR", {"mmap"}, {"+START_SERVICE=\"zr-qel-mla3\""}, "ENOMEM *+"},  // that of the heap, and those of stacks
        {"ERROR", kInit, {"+START_SERVICE=\"zr-elog\""}},
        {"ERROR", {"kill"}, {"+STOP_SERVICE*"}},
        {"ERROR", {"openat /data/zr-qel-sa/auto-start.lst"}, {"+AUTO_START_SERVICE*"}},
        {"ERROR", {"write /data/zr-qel-sa.set"}, {"+KERNEL_LOG=*", "+DMESG_LOG=*"}},
        {"ERROR", {"clone (fork)", "wait4"}, {"+DATA_PACKETS_LOG=1"}},
        {"ERROR", kCollectors, {"+DELETE_LOG"}},
        // The agent's threads. Without its configuration it knows no name for the channel.
        {"the command thread ends, the agent goes on", {"read /dev/ptmx"}, kRequests},
        {"the command thread ends, the agent goes on", kChannel, {kHangUp, kChannelStart}},
        {"the command thread ends, the agent goes on", {"openat */zr-qel-sa.cfg", "read */zr-qel-sa.cfg"}, {"start"}},
        {"the old master stays open", {"unlink /dev/ttyCMD0"}, {kHangUp}},
        {"the agent ends with status 138 after its teardown", kThread, {"start"}},
        {"the agent ends with status 0 after its teardown",
         kListener,
         {"start", "remote shell", "the host leaves the listener", "host:kill", "SIGUSR2"}},
        {"does not come up", kThread, {"start"}},
        {"does not come up", kListener, {"start"}},
        {"does not come up", {"wait4"}, {"start"}, "EINTR *+"},
        {"does not end", kInit, {"SIGUSR2"}},
        // Collectors. A switch that was never read changes nothing.
        {"without *", kCollectors, {"start", "start, *", "+DELETE_LOG", "the kernel-message reader starts"}},
        {"without *", kCollectorChild, {"children of the collectors"}},
        {"without kmsg.log",
         {"read /dev/ptmx", "mmap of a stack", "mprotect", "clone3 of a thread"},
         {"+KERNEL_LOG=1"}},
        {"without kmsg.log", {"read /proc/kmsg"}, {"a kernel message"}},
        {"lost", {"read /proc/kmsg", "write /data/local/log/kmsg.log"}, {"a kernel message"}},
        {"not stopped: *", {"waitid", "kill", "tgkill"}, {"+DELETE_LOG"}},
        {"not stopped: kmsg.log", {"read /dev/ptmx", "tgkill"}, {"+KERNEL_LOG=0"}},
        // One exchange of the remote shell.
        {"no shell", kConnection, {"remote shell"}},
        {"no shell", {"dup2 /dev/ptmx"}, {kChildShell}},
        {"told why: create_subprocess execl(/system/bin/sh) *", {"execve /system/bin/sh"}, {kChildShell}},
        {"no fresh listener", kListener, {"the host leaves the listener"}},
    };
    return all;
}

// ---- judgement

static bool fits(const char *pattern, const std::string &text) {
    return fnmatch(pattern, text.c_str(), 0) == 0;
}

static bool fits_any(const texts &patterns, const std::string &text) {
    return std::any_of(patterns.begin(), patterns.end(), [&](const char *pattern) { return fits(pattern, text); });
}

static bool is_foreseen(const stage &s, const fault &fault, const std::string &call, const std::string &ending) {
    const std::string error = fault.error + " " + fault.when;
    return std::any_of(foreseen_endings().begin(), foreseen_endings().end(), [&](const foreseen &row) {
        return fits(row.ending, ending) && fits_any(row.calls, call) && fits_any(row.stages, s.name) &&
               fits(row.error, error);
    });
}

// ---- words

static std::string listed(const std::vector<std::string> &names, const char *between = ", ") {
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : between) + name;
    }
    return text;
}

static void add_if(bool is_so, std::vector<std::string> *all, const std::string &what) {
    if (is_so) {
        all->push_back(what);
    }
}

// What the agent holds beyond a run without a fault, given its collectors.
static void tell_holdings(const health &plain, const ending &end, std::vector<std::string> *told,
                          std::vector<std::string> *defects) {
    const health allowed = with_collectors(plain, end.state.collectors);
    std::vector<std::string> left = more(end.state.descriptors, allowed.descriptors);
    // A master whose published name cannot be removed stays open on purpose: the name leads to it.
    if (end.hit == "unlink /dev/ttyCMD0" && left == std::vector<std::string>{"/dev/ptmx"}) {
        told->push_back("the old master stays open");
        left.clear();
    }
    const int threads = end.state.threads - allowed.threads;
    add_if(!left.empty(), defects, "descriptors left: " + listed(left));
    add_if(threads > 0, defects, std::to_string(threads) + " threads left");
}

// Of an agent that lives.
static void tell_state(const ending &plain, const ending &end, std::vector<std::string> *told,
                       std::vector<std::string> *defects) {
    const health &now = end.state;
    const bool has_lost_channel = !now.has_channel && plain.state.has_channel;
    add_if(has_lost_channel, told, "the command thread ends, the agent goes on");
    add_if(has_lost_channel && !now.left_channel_in_order, defects,
           "no command channel, and its thread has not ended in order");
    add_if(!now.has_shell, defects, "no remote shell");
    const std::vector<std::string> missing = more(plain.state.collectors, now.collectors);
    const std::vector<std::string> unstopped = more(now.collectors, plain.state.collectors);
    const bool is_none = now.collectors.empty() && missing.size() > 1;
    add_if(!missing.empty(), told, "without " + (is_none ? "collectors" : listed(missing)));
    tell_holdings(plain.state, end, told, defects);
    add_if(!unstopped.empty(), told, "not stopped: " + listed(unstopped));
}

std::string outcome(const stage &s, const fault &fault, const ending &plain, const ending &end, std::string *defect) {
    std::vector<std::string> told;
    std::vector<std::string> defects;
    add_if(end.seen != plain.seen, &told, end.seen);
    if (end.state.end != plain.state.end) {
        add_if(!end.state.end.empty(), &told, "the agent ends with " + end.state.end);
        add_if(end.state.end.empty() && !end.state.has_channel, &defects, "a life without a channel");
    } else if (end.state.end.empty()) {
        tell_state(plain, end, &told, &defects);
    }
    for (const std::string &ending : told) {
        add_if(!is_foreseen(s, fault, end.hit, ending), &defects, "\"" + ending + "\" is not foreseen");
    }
    *defect = listed(defects, "; ");
    return told.empty() ? "as ever" : listed(told, "; ");
}

// Endings that fit a fault do not fit a run without one.
std::string plain_defect(const stage &s, const ending &plain) {
    std::vector<std::string> defects;
    const health &now = plain.state;
    for (const foreseen &row : foreseen_endings()) {
        add_if(fits(row.ending, plain.seen) && fits_any(row.stages, s.name), &defects, plain.seen);
    }
    add_if(now.end.find("crash") != std::string::npos, &defects, now.end);
    add_if(now.end.empty() && !now.has_channel, &defects, "no command channel");
    add_if(now.end.empty() && !now.has_shell, &defects, "no remote shell");
    return listed(defects, "; ");
}
