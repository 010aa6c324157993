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
    if (traces_children(s)) {
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

bool traces_children(const stage &s) {
    return s.who == EVERYBODY || s.who == EVERYBODY_FROM_EXEC;
}

static bool is_from_exec(const stage &s) {
    return s.who == FROM_EXEC || s.who == EVERYBODY_FROM_EXEC;
}

static std::string tasks_of(pid_t pid) {
    return "/proc/" + std::to_string(pid) + "/task";
}

// Or gone: the first call may have been the last.
static bool is_traced(desk *h, const std::string &task) {
    const std::string status = desk_file_text(h, task + "/status");
    return status.find("TracerPid:\t0\n") == std::string::npos;
}

static pid_t find_thread(subject *s, tracee who) {
    if (who == MAIN_THREAD || who == EVERYBODY) {
        return s->agent;
    }
    std::vector<pid_t> found;
    desk_until([&] {
        found = who == WAITER ? threads_in(s, SYS_wait4, "")
                              : threads_in(s, SYS_read, who == COMMAND_THREAD ? "/dev/ptmx" : "/proc/kmsg");
        return !found.empty();
    });
    return found.empty() ? -1 : found[0];
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
    if (is_from_exec(st)) {
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
    end->trace = whole_calls(lines_of(desk_file_text(h, kTrace)));
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
    if (is_ready && !is_from_exec(st)) {
        is_ready = make_ready(st, fault, &s);
    }
    if (is_ready) {
        end->seen = st.act(&s);
        settle(&s);
        let_go(s.h);
        take_trace(st, s.h, end);
        if (st.resume) {
            st.resume(&s);
        }
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
