// All waiting here ends when the awaited happens, when it cannot happen any more (the agent or the other side is gone),
// or, for what a fault has silenced, after a short quiet time.
#include "tests/faults/acts.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/crash.h"

static const int kQuiet = 5000;  // ms without any sign of life
static const int kLong = 30000;  // ms that the slowest request may take
static const char kChannelClosed[] =
    "sa_handle_read_cmd_loop pub_pty_close ret_val[";  // its thread's last platform line

static bool begins(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}

// ---- the agent's process

static std::string tasks_of(const subject *s) {
    return "/proc/" + std::to_string(s->agent) + "/task";
}

static bool has_ended(const subject *s) {
    return s->agent > 0 && !desk_exists(s->h, tasks_of(s));
}

static size_t count_logged(const subject *s, const std::string &start) {
    const std::vector<desk_log_entry> log = desk_log(s->h, "zr-qel-sa");
    return static_cast<size_t>(std::count_if(log.begin(), log.end(), [&](const desk_log_entry &entry) {
        return (s->agent < 0 || entry.pid == s->agent) && begins(entry.text, start);
    }));
}

static bool has_logged(const subject *s, const std::string &start) {
    return count_logged(s, start) > 0;
}

static bool has_file_line(const subject *s, const std::string &part) {
    return desk_file_text(s->h, "/data/local/log/sa.log").find(part) != std::string::npos;
}

// Whether the command thread has logged its end.
static bool has_left_channel(const subject *s) {
    return has_logged(s, kChannelClosed) || has_file_line(s, "sa_handle_read_cmd_loop exit ret_val[");
}

// A crash comes first: it ends as orderly as any request to end.
static std::string end_of(const subject *s) {
    for (const desk_event &event : desk_events(s->h, "exit")) {
        if (event.fields[0] != "zr-qel-sa" || (s->agent > 0 && stoi(event.fields[1]) != s->agent)) {
            continue;
        }
        const std::string crash = crash_of(s->h);
        if (!crash.empty()) {
            return "a crash: " + crash;
        }
        const int status = stoi(event.fields[2]);
        const std::string how = WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                                                  : "signal " + std::to_string(WTERMSIG(status));
        const bool is_ordered = has_logged(s, "sa_deinit_resource exit") || has_file_line(s, "sa_deinit_resource exit");
        return how + (is_ordered ? " after its teardown" : "");
    }
    return "";
}

// ---- the command channel

static bool open_channel(subject *s, int limit_ms) {
    if (s->channel >= 0) {
        close(s->channel);
    }
    s->channel = desk_open_tty(s->h, "/dev/ttyCMD0", limit_ms);
    return s->channel >= 0;
}

static int thread_count(const subject *s) {
    return static_cast<int>(desk_list(s->h, tasks_of(s)).size());
}

bool wait_up(subject *s) {
    const bool is_settled = desk_until([&] {
        s->agent = s->agent > 0 ? s->agent : desk_agent_pid(s->h);
        return has_ended(s) || !end_of(s).empty() || desk_exists(s->h, "/dev/ttysa1");
    });
    if (!is_settled || s->agent < 0 || has_ended(s)) {
        return false;
    }
    open_channel(s, kQuiet);
    return true;
}

static std::string in_words(const std::string &answer) {
    if (answer == "\r\nOK\r\n") {
        return "OK";
    }
    if (answer == "\r\nERROR: -1\r\n") {
        return "ERROR";
    }
    std::string words;
    for (const char c : answer) {
        words += c == '\r' || c == '\n' ? (words.empty() || words.back() == ' ' ? "" : " ") : std::string(1, c);
    }
    return words.empty() ? "no answer" : words.substr(0, words.find_last_not_of(' ') + 1);
}

static bool is_whole(const std::string &answer) {
    const size_t error = answer.find("ERROR: ");
    return (answer.size() >= 4 && answer.compare(answer.size() - 4, 4, "OK\r\n") == 0) ||
           (error != std::string::npos && answer.find("\r\n", error) != std::string::npos);
}

// Takes what comes within the time; false when nothing more can come.
static bool receive(int fd, std::string *text, int limit_ms) {
    const int64_t end = desk_now_ms() + limit_ms;
    struct pollfd other = {fd, POLLIN, 0};
    int ready = 0;
    for (int slice; ready == 0 && (slice = desk_slice_ms(end)) > 0;) {
        ready = poll(&other, 1, slice);
    }
    if (ready != 1) {
        return true;
    }
    char bytes[1024];
    const ssize_t count = read(fd, bytes, sizeof(bytes));
    if (count > 0) {
        text->append(bytes, static_cast<size_t>(count));
    }
    return count > 0;
}

static std::string last_sent(const subject *s) {
    const std::string sent = "send ==> ";
    std::string answer;
    for (const desk_log_entry &entry : desk_log(s->h, "zr-qel-sa")) {
        answer = entry.pid == s->agent && begins(entry.text, sent) ? entry.text.substr(sent.size()) : answer;
    }
    return answer;
}

// The command thread that ends right behind its answer hangs up, and takes the answer along when the client has not read
// it by then. What it sent stands in its log. `requests` were served before.
static std::string answer_taken_along(const subject *s, const std::string &handled, size_t requests) {
    desk_until([&] { return has_ended(s) || has_logged(s, kChannelClosed); }, kQuiet);
    return count_logged(s, handled) > requests ? last_sent(s) : "";
}

std::string ask(subject *s, const std::string &request) {
    const std::string bytes = (begins(request, "AT") ? request : "AT SA" + request) + "\r";
    const std::string handled = "sa_handle_read_cmd_loop handle_sa_cmd_req(" + bytes.substr(0, bytes.size() - 1);
    const size_t served = count_logged(s, handled);
    const int64_t start = desk_now_ms();
    std::string answer;
    if (s->channel < 0 || write(s->channel, bytes.data(), bytes.size()) < 0) {
        return "no answer";
    }
    bool is_open = true;
    while (is_open && !is_whole(answer)) {
        is_open = receive(s->channel, &answer, 100);
        const int64_t past = desk_now_ms() - start;
        const bool is_served =
            count_logged(s, handled) > served || (past > kQuiet && !has_logged(s, "receive <== " + bytes.substr(0, 4)));
        if (has_ended(s) || past > kLong || is_served) {
            receive(s->channel, &answer, 100);
            break;
        }
    }
    return in_words(is_open || !answer.empty() ? answer : answer_taken_along(s, handled, served));
}

// Whether a fresh connection is answered. The channel is made anew behind the agent's read: the first try may come early.
static bool is_answered(subject *s) {
    for (int tries = 0; tries < 3 && !has_ended(s) && !has_left_channel(s); tries++) {
        if (s->channel >= 0) {
            close(s->channel);
            s->channel = -1;
        }
        std::string answer;
        if (!open_channel(s, 2000) || write(s->channel, "AT\r", 3) != 3) {
            continue;
        }
        while (receive(s->channel, &answer, 2000) && !answer.empty() && !is_whole(answer)) {
        }
        if (answer == "\r\nOK\r\n") {
            return true;
        }
    }
    return false;
}

std::string first_opening(subject *s) {
    desk_until([&] { return has_ended(s) || has_logged(s, "sa_handle_read_cmd_loop pub_pty_open"); });
    s->agent = desk_agent_pid(s->h);
    open_channel(s, 2000);
    const std::string answer = ask(s, "AT");
    desk_until([&] { return has_left_channel(s) || !threads_in(s, SYS_read, "/dev/ptmx").empty(); }, 1000);
    return answer;
}

std::string hang_up(subject *s) {
    close(s->channel);
    s->channel = -1;
    desk_until([&] { return has_ended(s) || has_logged(s, "sa_handle_read_cmd_loop EIO pub_pty_open"); }, kQuiet);
    return is_answered(s) ? "answered again" : "not answered again";
}

// ---- the remote shell

static std::string try_remote_shell(subject *s) {
    // The shell lives until its output has been read: the agent drops what is left soon after its end.
    const std::string request = "shell:echo he''llo; read line";
    const int listener = desk_open_tty(s->h, "/dev/ttysa1", 2000);
    std::string name;
    std::string text;
    if (listener < 0 || write(listener, request.data(), request.size()) < 0 || !receive(listener, &name, kQuiet) ||
        name.empty()) {
        close(listener);
        return "no shell";
    }
    const int terminal = desk_open_tty(s->h, name, 1000);
    (void)!write(listener, "+", 1);
    while (terminal >= 0 && text.find('\n') == std::string::npos && receive(terminal, &text, kQuiet) && !text.empty()) {
    }
    close(terminal);
    close(listener);
    return text == "hello\n" ? "a shell" : text.empty() ? "no shell" : "told why: " + in_words(text);
}

std::string remote_shell(subject *s) {
    return try_remote_shell(s);
}

// A line that names no descriptor tells of the end as well, which may or may not have come by then.
std::string leave_listener(subject *s) {
    const std::string reopened = "sa_listener_loop reopen fd[";
    const std::string failed = reopened + "-1]";
    close(desk_open_tty(s->h, "/dev/ttysa1", kQuiet));
    desk_until([&] { return has_ended(s) || has_logged(s, reopened) || has_file_line(s, reopened); }, kQuiet);
    const bool is_fresh = (has_logged(s, reopened) && !has_logged(s, failed)) ||
                          (has_file_line(s, reopened) && !has_file_line(s, failed));
    return is_fresh ? "a fresh listener" : "no fresh listener";
}

// ---- the end

static std::string wait_end(subject *s) {
    desk_until([&] { return !end_of(s).empty(); }, kQuiet);
    return end_of(s).empty() ? "does not end" : "ends";
}

std::string host_kill(subject *s) {
    const int listener = desk_open_tty(s->h, "/dev/ttysa1", kQuiet);
    (void)!write(listener, "host:kill", 9);
    const std::string how = wait_end(s);
    close(listener);
    return how;
}

std::string end_by(subject *s, int signal) {
    desk_kill(s->h, s->agent, signal);
    return wait_end(s);
}

// ---- collectors

std::string kernel_message(subject *s) {
    desk_kmsg_feed(s->h, "<6>a message\n");
    return desk_wait_text(s->h, "/data/local/log/kmsg.log", "a message", kQuiet) ? "copied" : "lost";
}

static std::vector<pid_t> processes_with(desk *h, const std::string &argument) {
    std::vector<pid_t> found;
    for (const char *program : {"logcat", "tcpdump"}) {
        for (const pid_t pid : desk_pids(h, program)) {
            const std::vector<std::string> arguments = desk_arguments(h, pid);
            if (std::find(arguments.begin(), arguments.end(), argument) != arguments.end()) {
                found.push_back(pid);
            }
        }
    }
    return found;
}

std::string lose_logcat(subject *s) {
    const std::vector<pid_t> found = processes_with(s->h, "/data/local/log/logcat-events.log");
    const pid_t child = found.empty() ? -1 : found[0];
    desk_kill(s->h, child, SIGKILL);
    return desk_wait_gone(s->h, child, kQuiet) ? "reaped" : "a zombie stays";
}

std::vector<pid_t> threads_in(const subject *s, long call, const std::string &target) {
    const std::string descriptors = "/proc/" + std::to_string(s->agent) + "/fd/";
    std::vector<pid_t> found;
    for (const std::string &name : desk_list(s->h, tasks_of(s))) {
        const pid_t thread = stoi(name);
        long number = -1;
        unsigned long argument = 0;
        const std::string text = desk_file_text(s->h, tasks_of(s) + "/" + name + "/syscall");
        if (sscanf(text.c_str(), "%ld 0x%lx", &number, &argument) == 2 && number == call && thread != s->agent &&
            (target.empty() || desk_link_target(s->h, descriptors + std::to_string(argument)) == target)) {
            found.push_back(thread);
        }
    }
    return found;
}

// Children by their files. Readers of kernel messages by the threads that read: a forgotten descriptor is no reader.
static std::vector<std::string> running_collectors(const subject *s) {
    std::vector<std::string> found;
    for (const char *file : {"ipdata.pcap", "logcat.log", "logcat-events.log", "logcat-radio.log"}) {
        found.insert(found.end(), processes_with(s->h, std::string("/data/local/log/") + file).size(), file);
    }
    found.insert(found.end(), threads_in(s, SYS_read, "/proc/kmsg").size(), "kmsg.log");
    std::sort(found.begin(), found.end());
    return found;
}

// ---- afterwards

static std::vector<std::string> targets(const subject *s) {
    const std::string directory = "/proc/" + std::to_string(s->agent) + "/fd";
    std::vector<std::string> found;
    for (const std::string &name : desk_list(s->h, directory)) {
        const std::string target = desk_link_target(s->h, directory + "/" + name);
        const size_t cut = std::min(target.find(':'), target.find(" (deleted)"));  // "socket:[123]"
        found.push_back(target.substr(0, cut));
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<std::string> more(const std::vector<std::string> &now, const std::vector<std::string> &normal) {
    std::vector<std::string> found;
    std::set_difference(now.begin(), now.end(), normal.begin(), normal.end(), std::back_inserter(found));
    return found;
}

// What a collector takes of the agent beside one thread: a child's waiter the null device, a reader its stream and its file.
static std::vector<std::string> holdings_of(const std::string &collector) {
    return collector == "kmsg.log" ? std::vector<std::string>{"/data/local/log/kmsg.log", "/proc/kmsg"}
                                   : std::vector<std::string>{"/dev/null"};
}

health with_collectors(const health &normal, const std::vector<std::string> &collectors) {
    health other = normal;
    for (const std::string &missing : more(normal.collectors, collectors)) {
        other.threads--;
        for (const std::string &held : holdings_of(missing)) {
            const auto found = std::find(other.descriptors.begin(), other.descriptors.end(), held);
            if (found != other.descriptors.end()) {
                other.descriptors.erase(found);
            }
        }
    }
    for (const std::string &unstopped : more(collectors, normal.collectors)) {
        other.threads++;
        const std::vector<std::string> held = holdings_of(unstopped);
        other.descriptors.insert(other.descriptors.end(), held.begin(), held.end());
    }
    other.collectors = collectors;
    std::sort(other.descriptors.begin(), other.descriptors.end());
    return other;
}

// Takes the collectors, threads and descriptors once they are settled: a waiter keeps its child's descriptor for a moment,
// and the listener and the channel are being made anew.
static void take_holdings(const subject *s, const health *normal, health *state) {
    int looks = 0;
    desk_until(
        [&] {
            const health last = *state;
            state->collectors = running_collectors(s);
            state->threads = thread_count(s);
            state->descriptors = targets(s);
            if (normal != nullptr) {
                const health wanted = with_collectors(*normal, state->collectors);
                return state->threads <= wanted.threads && more(state->descriptors, wanted.descriptors).empty();
            }
            const bool is_same = state->threads == last.threads && state->descriptors == last.descriptors &&
                                 state->collectors == last.collectors;
            looks = is_same ? looks + 1 : 0;
            return looks == 50;
        },
        5000);
}

health look_after(subject *s, const health *normal) {
    health state;
    s->agent = s->agent > 0 ? s->agent : desk_agent_pid(s->h);
    state.left_channel_in_order = has_left_channel(s);
    state.end = end_of(s);
    if (!state.end.empty()) {
        return state;
    }
    state.has_channel = is_answered(s);
    state.has_shell =
        desk_until([&] { return has_ended(s) || try_remote_shell(s) == "a shell"; }, 4 * kQuiet) && !has_ended(s);
    state.end = end_of(s);
    take_holdings(s, normal, &state);
    return state;
}
