// All waiting here ends when the awaited happens, when it cannot happen any more (the agent or the other side is gone),
// or, for what a fault has silenced, after a short quiet time.
#include "tests/faults/acts.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

static const int kQuiet = 5000;  // ms without any sign of life
static const int kLong = 30000;  // ms that the slowest request may take

static bool begins(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}

// ---- the agent's process

static bool has_ended(const subject *s) {
    return s->agent > 0 && !desk_exists(s->h, "/proc/" + std::to_string(s->agent) + "/task");
}

static bool has_logged(const subject *s, const std::string &start) {
    const std::vector<desk_log_entry> log = desk_log(s->h, "zr-qel-sa");
    return std::any_of(log.begin(), log.end(), [&](const desk_log_entry &entry) {
        return (s->agent < 0 || entry.pid == s->agent) && begins(entry.text, start);
    });
}

static bool has_file_line(const subject *s, const std::string &part) {
    return desk_file_text(s->h, "/data/local/log/sa.log").find(part) != std::string::npos;
}

static std::string end_of(const subject *s) {
    for (const desk_event &event : desk_events(s->h, "exit")) {
        if (event.fields[0] != "zr-qel-sa" || (s->agent > 0 && stoi(event.fields[1]) != s->agent)) {
            continue;
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
    return static_cast<int>(desk_list(s->h, "/proc/" + std::to_string(s->agent) + "/task").size());
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
    struct pollfd other = {fd, POLLIN, 0};
    if (poll(&other, 1, limit_ms) != 1) {
        return true;
    }
    char bytes[1024];
    const ssize_t count = read(fd, bytes, sizeof(bytes));
    if (count > 0) {
        text->append(bytes, static_cast<size_t>(count));
    }
    return count > 0;
}

std::string ask(subject *s, const std::string &request) {
    using clock = std::chrono::steady_clock;
    const std::string bytes = (begins(request, "AT") ? request : "AT SA" + request) + "\r";
    const std::string handled = "sa_handle_read_cmd_loop handle_sa_cmd_req(" + bytes.substr(0, bytes.size() - 1);
    const clock::time_point start = clock::now();
    std::string answer;
    if (s->channel < 0 || write(s->channel, bytes.data(), bytes.size()) < 0) {
        return "no answer";
    }
    bool is_open = true;
    while (is_open && !is_whole(answer)) {
        is_open = receive(s->channel, &answer, 100);
        const auto past = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - start).count();
        const bool is_served =
            has_logged(s, handled) || (past > kQuiet && !has_logged(s, "receive <== " + bytes.substr(0, 4)));
        if (has_ended(s) || past > kLong || is_served) {
            receive(s->channel, &answer, 100);
            break;
        }
    }
    return in_words(answer);
}

// Whether a fresh connection is answered. The channel is made anew behind the agent's read: the first try may come early.
static bool is_answered(subject *s) {
    for (int tries = 0; tries < 3 && !has_ended(s); tries++) {
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

std::string hang_up(subject *s) {
    close(s->channel);
    s->channel = -1;
    desk_until([&] { return has_ended(s) || has_logged(s, "sa_handle_read_cmd_loop EIO pub_pty_open"); }, kQuiet);
    return is_answered(s) ? "answered again" : "not answered again";
}

// ---- the remote shell

static std::string try_remote_shell(subject *s) {
    const std::string request = "shell:echo he''llo";
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

// By their files; a reader of kernel messages shows by its stream.
static std::vector<std::string> running_collectors(const subject *s, const std::vector<std::string> &descriptors) {
    std::vector<std::string> found;
    for (const char *file : {"ipdata.pcap", "logcat.log", "logcat-events.log", "logcat-radio.log"}) {
        found.insert(found.end(), processes_with(s->h, std::string("/data/local/log/") + file).size(), file);
    }
    const auto readers = std::count(descriptors.begin(), descriptors.end(), "/proc/kmsg");
    found.insert(found.end(), static_cast<size_t>(readers), "kmsg.log");
    std::sort(found.begin(), found.end());
    return found;
}

// ---- afterwards

static std::vector<std::string> targets(const subject *s) {
    const std::string directory = "/proc/" + std::to_string(s->agent) + "/fd";
    std::vector<std::string> found;
    for (const std::string &name : desk_list(s->h, directory)) {
        const std::string target = desk_link_target(s->h, directory + "/" + name);
        found.push_back(target.substr(0, target.find(':')));
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<std::string> more(const std::vector<std::string> &now, const std::vector<std::string> &normal) {
    std::vector<std::string> found;
    std::set_difference(now.begin(), now.end(), normal.begin(), normal.end(), std::back_inserter(found));
    return found;
}

// Takes the threads and descriptors once they are settled: a waiter keeps its child's descriptor for a moment, and the
// listener and the channel are being made anew.
static void take_holdings(const subject *s, const health *normal, health *state) {
    int looks = 0;
    desk_until(
        [&] {
            const health last = *state;
            state->threads = thread_count(s);
            state->descriptors = targets(s);
            if (normal != nullptr) {
                return state->threads <= normal->threads && more(state->descriptors, normal->descriptors).empty();
            }
            looks = state->threads == last.threads && state->descriptors == last.descriptors ? looks + 1 : 0;
            return looks == 50;
        },
        5000);
}

health look_after(subject *s, const health *normal) {
    health state;
    s->agent = s->agent > 0 ? s->agent : desk_agent_pid(s->h);
    state.left_channel_in_order = has_logged(s, "sa_handle_read_cmd_loop pub_pty_close ret_val[") ||
                                  has_file_line(s, "sa_handle_read_cmd_loop exit ret_val[");
    state.end = end_of(s);
    if (!state.end.empty()) {
        return state;
    }
    state.has_channel = is_answered(s);
    state.has_shell =
        desk_until([&] { return has_ended(s) || try_remote_shell(s) == "a shell"; }, 4 * kQuiet) && !has_ended(s);
    state.end = end_of(s);
    take_holdings(s, normal, &state);
    state.collectors = running_collectors(s, state.descriptors);
    return state;
}
