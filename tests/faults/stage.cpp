// One run: boot, trace, act, let go, look. A handset serves one run, so that nothing of one fault meets the next.
#include "tests/faults/stage.h"

#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>

#include "tests/faults/acts.h"
#include "tests/support/commands.h"

static const char kTrace[] = "/dev/.desk/inject.trace";
static const char kTracer[] = "/usr/bin/strace";

// ---- strace

static std::vector<std::string> tracer_words(const stage &s, const fault *fault) {
    // -I 2: it lets go when it is told to end, also where it has started the program.
    std::vector<std::string> words = {kTracer, "-I", "2", "-qq", "-y", "-s", "64", "-o", kTrace};
    if (s.who == EVERYBODY) {
        words.push_back("-f");
    }
    if (fault == nullptr) {
        return words;
    }
    if (!fault->path.empty()) {
        words.insert(words.end(), {"-P", fault->path});
    }
    words.insert(words.end(), {"-e", "trace=" + fault->call, "-e",
                               "inject=" + fault->call + ":error=" + fault->error + ":when=" + fault->when});
    return words;
}

static std::string tasks_of(pid_t pid) {
    return "/proc/" + std::to_string(pid) + "/task";
}

// Or gone: the first call may have been the last.
static bool is_traced(desk *h, const std::string &task) {
    const std::string status = desk_file_text(h, task + "/status");
    return status.find("TracerPid:\t0\n") == std::string::npos;
}

// The thread that sits in this system call with this descriptor's target; -1 when there is none.
static pid_t thread_in(subject *s, long call, const std::string &target) {
    const std::string process = "/proc/" + std::to_string(s->agent);
    for (const std::string &name : desk_list(s->h, tasks_of(s->agent))) {
        long number = -1;
        unsigned long argument = 0;
        const std::string text = desk_file_text(s->h, tasks_of(s->agent) + "/" + name + "/syscall");
        const bool is_main = atoi(name.c_str()) == s->agent;
        if (sscanf(text.c_str(), "%ld 0x%lx", &number, &argument) == 2 && number == call && !is_main &&
            (target.empty() || desk_link_target(s->h, process + "/fd/" + std::to_string(argument)) == target)) {
            return atoi(name.c_str());
        }
    }
    return -1;
}

static pid_t find_thread(subject *s, tracee who) {
    pid_t found = -1;
    const bool is_waiter = who == WAITER;
    desk_until([&] {
        found = who == MAIN_THREAD || who == EVERYBODY ? s->agent
                : is_waiter                            ? thread_in(s, SYS_wait4, "")
                            : thread_in(s, SYS_read, who == COMMAND_THREAD ? "/dev/ptmx" : "/proc/kmsg");
        return found > 0;
    });
    return found;
}

static bool attach(const stage &st, subject *s, const fault *fault, desk_child *tracer) {
    const pid_t thread = s->traced = find_thread(s, st.who);
    desk_program program;
    program.argv = tracer_words(st, fault);
    program.argv.insert(program.argv.end(), {"-p", std::to_string(thread)});
    if (thread < 0 || !desk_start(s->h, program, tracer)) {
        return false;
    }
    const std::string tasks = tasks_of(s->agent);
    return desk_until([&] {
        if (st.who != EVERYBODY) {
            return is_traced(s->h, tasks + "/" + std::to_string(thread));
        }
        const std::vector<std::string> names = desk_list(s->h, tasks);
        return std::all_of(names.begin(), names.end(),
                           [&](const std::string &name) { return is_traced(s->h, tasks + "/" + name); });
    });
}

// Waits until the traced thread sleeps again, as it does with nothing to do; one that keeps failing never does.
static void settle(const subject *s) {
    const std::string status =
        tasks_of(s->agent) + "/" + std::to_string(s->traced > 0 ? s->traced : s->agent) + "/status";
    int looks = 0;
    desk_until(
        [&] {
            const bool is_asleep = desk_file_text(s->h, status).find("State:\tS") != std::string::npos;
            looks = is_asleep ? looks + 1 : 0;
            return looks == 5;
        },
        500);
}

static void let_go(desk *h) {
    for (const pid_t pid : desk_pids(h, kTracer)) {
        desk_kill(h, pid, SIGTERM);
        desk_wait_gone(h, pid);
    }
}

// ---- boot

// init starts the agent through strace, which then steps aside: the service is the agent itself.
static desk_file traced_service(const stage &s, const fault *fault) {
    std::string line = "service zr-qel-sa";
    for (const std::string &word : tracer_words(s, fault)) {
        line += " " + word;
    }
    desk_file rc;
    rc.path = "/system/etc/init/zr-qel-sa.rc";
    rc.text = line + " -D /system/bin/zr-qel-sa\n    class late_start\n    user root\n";
    return rc;
}

static bool boot(const stage &st, const fault *fault, subject *s) {
    desk_options options = st.collectors ? desk_options() : quiet_options();
    options.restart_ms = 600000;                                   // what has ended is looked at, not replaced
    options.environment.push_back("LSAN_OPTIONS=detect_leaks=0");  // a look for leaks would have to trace, too
    add_quick_programs(&options);
    if (st.prepare) {
        st.prepare(&options);
    }
    if (st.who == FROM_EXEC) {
        options.files.push_back(traced_service(st, fault));
    }
    s->h = desk_boot(options);
    return s->h != nullptr;
}

// ---- one run

static std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> all;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        all.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return all;
}

static void take_trace(const stage &st, desk *h, ending *end) {
    end->trace = lines_of(desk_file_text(h, kTrace));
    for (const std::string &line : end->trace) {
        traced_call call;
        if (line.find("(INJECTED)") != std::string::npos && parse_call(line, &call)) {
            end->hit = call.title;
            break;
        }
    }
    // What comes before the first socket, the platform log's, is the dynamic loader's work.
    const auto own = std::find_if(end->trace.begin(), end->trace.end(),
                                  [](const std::string &line) { return line.compare(0, 7, "socket(") == 0; });
    end->first = st.who == FROM_EXEC ? static_cast<size_t>(own - end->trace.begin()) : 0;
}

// Before the act: the agent is up, has done what goes before, and its tracer is in place.
static bool make_ready(const stage &st, const fault *fault, subject *s) {
    desk_child tracer;
    if (!wait_up(s)) {
        return false;
    }
    for (const std::string &request : st.before) {
        ask(s, request);
    }
    if (!attach(st, s, fault, &tracer)) {
        return false;
    }
    settle(s);
    return true;
}

bool run_stage(const stage &st, const fault *fault, const ending *plain, ending *end) {
    subject s;
    *end = ending();
    bool is_ready = boot(st, fault, &s);
    if (is_ready && st.who != FROM_EXEC) {
        is_ready = make_ready(st, fault, &s);
    }
    if (is_ready) {
        end->seen = st.act(&s);
        settle(&s);
        let_go(s.h);
        take_trace(st, s.h, end);
        end->state = look_after(&s, plain != nullptr ? &plain->state : nullptr);
    }
    if (s.channel >= 0) {
        close(s.channel);
    }
    desk_end(s.h);
    return is_ready;
}

bool is_concerned(const stage &s, const fault &fault) {
    const bool is_call = s.calls.empty() || std::count(s.calls.begin(), s.calls.end(), fault.call) > 0;
    return is_call && (s.paths.empty() || std::any_of(s.paths.begin(), s.paths.end(), [&](const std::string &part) {
                           return fault.path.find(part) != std::string::npos;
                       }));
}

// ---- words

static std::string listed(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

static void add(std::string *text, const std::string &what) {
    if (!what.empty()) {
        *text += (text->empty() ? "" : "; ") + what;
    }
}

// Takes away what a collector holds in the agent: a child's waiter its null device, a reader its stream and its file.
static void discount(const std::string &collector, std::vector<std::string> *descriptors) {
    for (const char *held : {"/dev/null", "/proc/kmsg", "/data/local/log/kmsg.log"}) {
        const bool is_reader = collector == "kmsg.log";
        const auto found = std::find_if(descriptors->begin(), descriptors->end(), [&](const std::string &name) {
            return name.compare(0, strlen(held), held) == 0;
        });
        if (is_reader != (strcmp(held, "/dev/null") == 0) && found != descriptors->end()) {
            descriptors->erase(found);
        }
    }
}

// What the agent holds beyond a run without a fault, and beyond collectors that could not be stopped.
static void tell_holdings(const health &plain, const ending &end, std::string *text, std::string *defect) {
    const health &now = end.state;
    const std::vector<std::string> unstopped = more(now.collectors, plain.collectors);
    std::vector<std::string> left = more(now.descriptors, plain.descriptors);
    for (const std::string &collector : unstopped) {
        discount(collector, &left);
    }
    // A master whose published name cannot be removed stays open on purpose: the name leads to it.
    if (end.hit == "unlink /dev/ttyCMD0" && left == std::vector<std::string>{"/dev/ptmx"}) {
        add(text, "the old master stays open");
        left.clear();
    }
    const int threads = now.threads - plain.threads - static_cast<int>(unstopped.size());
    add(text, unstopped.empty() ? "" : "not stopped: " + listed(unstopped));
    add(defect, left.empty() ? "" : "descriptors left: " + listed(left));
    add(defect, threads <= 0 ? "" : std::to_string(threads) + " threads left");
}

// Of an agent that lives.
static void tell_state(const ending &plain, const ending &end, std::string *text, std::string *defect) {
    const health &now = end.state;
    if (!now.has_channel && plain.state.has_channel) {
        add(text, "the command thread ends, the agent goes on");
        add(defect, now.left_channel_in_order ? "" : "no command channel, and its thread has not ended in order");
    }
    add(defect, now.has_shell ? "" : "no remote shell");
    const std::vector<std::string> missing = more(plain.state.collectors, now.collectors);
    const bool is_none = now.collectors.empty() && missing.size() > 1;
    add(text, missing.empty() ? "" : "without " + (is_none ? "collectors" : listed(missing)));
    tell_holdings(plain.state, end, text, defect);
}

std::string outcome(const ending &plain, const ending &end, std::string *defect) {
    std::string text = end.seen == plain.seen ? "" : end.seen;
    defect->clear();
    if (end.state.end != plain.state.end) {
        add(&text, end.state.end.empty() ? "" : "the agent ends with " + end.state.end);
        const bool is_ordered = end.state.end.find("after its teardown") != std::string::npos;
        add(defect, end.state.end.empty() || is_ordered ? "" : "an end without a teardown");
        add(defect, !end.state.end.empty() || end.state.has_channel ? "" : "a life without a channel");
    } else if (end.state.end.empty()) {
        tell_state(plain, end, &text, defect);
    }
    return text.empty() ? "as ever" : text;
}
