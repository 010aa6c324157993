// Starting commands on the handset: the listener's exchange, the wrapping of a command, signals to what was started.
// Owns no state; each connection belongs to its caller.

#include "remote.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/random.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "link.h"
#include "message.h"
#include "stream.h"

namespace {

constexpr size_t PATH_LEN_MAX = 64;   // "/dev/pts/" and a number
constexpr int SIGNAL_TIMEOUT_S = 10;  // takes milliseconds; a machine under load may take seconds
constexpr size_t OUTPUT_MAX = 1 << 20;
constexpr int SILENT_START_MS = 500;
constexpr int SHOW_STEP_MS = 500;

int64_t answer_deadline(const host_options &options) {
    return now_ms() + (options.timeout_s > 0 ? options.timeout_s : REMOTE_TIMEOUT_S) * INT64_C(1000);
}

bool is_pts_path(const std::string &text) {
    static const char prefix[] = "/dev/pts/";
    constexpr size_t len = sizeof(prefix) - 1;
    return text.size() > len && text.compare(0, len, prefix) == 0 &&
           text.find_first_not_of("0123456789", len) == std::string::npos;
}

std::string pts_index(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

enum exchange_end { EXCHANGE_DONE, EXCHANGE_HUNG_UP, EXCHANGE_FAILED };

// Reads the announced path. The agent writes it at once and bare, and a pseudo-terminal does not cut a few bytes.
exchange_end read_path(const link_turn &listener, int64_t deadline, std::string *path) {
    while (!is_pts_path(*path)) {
        char buf[PATH_LEN_MAX];
        long got = read_some(listener.fd, buf, sizeof(buf), deadline);
        if (got == 0) {
            return EXCHANGE_HUNG_UP;
        }
        if (got < 0) {
            say("The agent announced no connection in time (%s): its main thread is busy or hangs. Try again, or look "
                "into "
                "/data/local/log/sa.log on the handset.",
                strerror(errno));
            return EXCHANGE_FAILED;
        }
        path->append(buf, static_cast<size_t>(got));
        if (path->size() > PATH_LEN_MAX) {
            say("What answers on the listener is not the agent. Check --listener.");
            return EXCHANGE_FAILED;
        }
    }
    return EXCHANGE_DONE;
}

// The kernel may report a hang-up instead of bytes written just before it, to a reader who looks for them at that very
// moment: the agent would miss the acknowledgement. So the listener stays open until what the agent has started speaks or
// ends; something silent is given the time in which the agent has long read on.
void await_start(int connection) {
    struct pollfd child = {connection, POLLIN, 0};
    poll(&child, 1, SILENT_START_MS);
}

exchange_end exchange(const host_options &options, const link_turn &listener, const std::string &request, int size_fd,
                      remote_on_start on_start, int64_t deadline, link_terminal *out) {
    std::string path;
    if (write_all(listener.fd, request.data(), request.size(), deadline) != 0) {
        return EXCHANGE_HUNG_UP;
    }
    exchange_end end = read_path(listener, deadline, &path);
    if (end != EXCHANGE_DONE) {
        return end;
    }
    if (!link_open_terminal(options, listener, path, out)) {
        return EXCHANGE_FAILED;
    }
    link_copy_size(options, *out, size_fd);
    if (on_start != nullptr) {
        on_start(options, *out);
    }
    if (write_all(listener.fd, "+", 1, deadline) != 0) {
        link_close_terminal(out);
        return EXCHANGE_HUNG_UP;
    }
    await_start(out->fd);
    return EXCHANGE_DONE;
}

std::string mark_text(const remote_mark &mark, const char *value) {
    // The quotes keep the tag out of the command line itself, which `ps` on the handset may print.
    size_t half = mark.tag.size() / 2;
    return "echo " + mark.tag.substr(0, half) + "''" + mark.tag.substr(half) + value;
}

// Judges a complete run of digits behind the tag.
void mark_found(remote_mark *mark, const std::string &digits) {
    long value = strtol(digits.c_str(), nullptr, 10);
    if (mark->pid == 0) {
        mark->pid = value;
    } else {
        mark->status = static_cast<int>(value & 0xff);
        mark->is_over = true;
    }
}

// Whether `held` can still become a mark: a beginning of the tag, or the tag and digits.
bool can_be_mark(const remote_mark &mark, const std::string &held) {
    size_t len = std::min(held.size(), mark.tag.size());
    if (mark.tag.compare(0, len, held, 0, len) != 0) {
        return false;
    }
    return held.size() <= mark.tag.size() + 10 &&
           held.find_first_not_of("0123456789", mark.tag.size()) == std::string::npos;
}

void mark_byte(remote_mark *mark, char byte, std::string *out) {
    if (byte == '\n' && mark->held.size() > mark->tag.size()) {
        mark_found(mark, mark->held.substr(mark->tag.size()));
        mark->held.clear();
        return;
    }
    mark->held += byte;
    if (can_be_mark(*mark, mark->held)) {
        return;
    }
    // The tag's first byte occurs nowhere else in it: only the newest byte can begin another mark.
    mark->held.pop_back();
    *out += mark->held;
    mark->held.clear();
    if (byte == mark->tag[0]) {
        mark->held = byte;
    } else {
        *out += byte;
    }
}

struct output_of {
    std::string *text;
};

bool collect(void *context, const char *data, size_t len) {
    std::string *text = static_cast<output_of *>(context)->text;
    if (text->size() + len > OUTPUT_MAX) {
        say("The command's output is longer than %zu bytes. Narrow it down.", OUTPUT_MAX);
        return false;
    }
    text->append(data, len);
    return true;
}

// One round of remote_run. Result: 1 to go on, 0 at the end of the output, -1 after a failure.
int run_step(link_terminal *child, remote_mark *mark, int64_t deadline, remote_sink sink, void *context) {
    char buf[65536];
    long got = read_some(child->fd, buf, sizeof(buf), deadline);
    if (got < 0) {
        return -1;
    }
    std::string out;
    if (got == 0) {
        mark_end(mark, &out);
    } else {
        mark_feed(mark, buf, static_cast<size_t>(got), &out);
    }
    if (!out.empty() && !sink(context, out.data(), out.size())) {
        errno = 0;
        return -1;
    }
    return got > 0 && !mark->is_over ? 1 : 0;
}

int run_all(link_terminal *child, remote_mark *mark, int quiet_s, const char *what, remote_sink sink, void *context) {
    int64_t start = now_ms();
    int64_t last = start;
    for (;;) {
        int64_t step = now_ms() + SHOW_STEP_MS;
        int more = run_step(child, mark, step, sink, context);
        if (more == 0) {
            return 0;
        }
        if (more > 0) {
            last = now_ms();
            continue;
        }
        if (errno != ETIMEDOUT) {
            return -1;
        }
        if (now_ms() - last >= quiet_s * INT64_C(1000)) {
            say("The handset sent nothing for %d s. Try again with a longer --timeout.", quiet_s);
            errno = 0;
            return -1;
        }
        if (what != nullptr && now_ms() - start >= 2 * SHOW_STEP_MS) {
            progress_show(text_of("%s: %s", what, in_time(static_cast<uint64_t>((now_ms() - start) / 1000)).c_str()));
        }
    }
}

// Finds the processes that have a terminal on a standard stream. The kernel tells the number of a master's terminal in
// fdinfo, and the mount that the agent opened it through, which this shell's own master shares; that one is read from
// stream 1, since stream 0 is the file being read. The foreground of a session is the process group started last that is
// not stopped, since its shell starts nothing else meanwhile; a shell that makes no groups is all of it.
// Sets a: the processes; q: those not stopped, each with its group in front; g: the foreground group, if any; l: the
// session.
std::string script_find(const std::string &index) {
    return "i(){ m= t=;while read k v;do case $k in mnt_id:)m=$v;;tty-index:)t=$v;;esac;done<$1;}\n"
           "i /proc/$$/fdinfo/1;w=$m." +
           index +
           "\n"
           "b=0 g= a= q= l=\n"
           "for p in /proc/[0-9]*;do\n"
           "for f in 0 1 2;do\n"
           "i $p/fdinfo/$f;[ \"$m.$t\" = $w ]||continue\n"
           "read s<$p/stat||break\n"
           "set -- ${s##*) }\n"
           "a=\"$a ${p#/proc/}\" l=$4\n"
           "[ $1 = T ]&&break\n"
           "q=\"$q $3.${p#/proc/}\"\n"
           "[ $3 != $4 ]&&[ ${20} -ge $b ]&&b=${20} g=$3\n"
           "break\n"
           "done\n"
           "done 2>/dev/null\n";
}

// Starts a command that says "." when it has done a piece of its work.
int start_short(const host_options &options, const std::string &command, link_terminal *child) {
    host_options bounded = options;
    bounded.timeout_s = SIGNAL_TIMEOUT_S;
    bounded.is_patient = false;
    return remote_start(bounded, "shell:" + command, -1, nullptr, child);
}

bool await_point(const link_terminal &child) {
    char buf[512];
    int64_t deadline = now_ms() + SIGNAL_TIMEOUT_S * INT64_C(1000);
    long got;
    do {
        got = read_some(child.fd, buf, sizeof(buf), deadline);
    } while (got > 0 && memchr(buf, '.', static_cast<size_t>(got)) == nullptr);
    return got > 0;
}

int run_short(const host_options &options, const std::string &command) {
    link_terminal child;
    if (start_short(options, command, &child) != 0) {
        return -1;
    }
    bool is_done = await_point(child);
    link_close_terminal(&child);
    return is_done ? 0 : -1;
}

// Follows script_find. Stops the shells above the foreground (s), which would read next, and says "."; after a line from
// this side waits until the foreground (f) has ended, at most for a second, and says "."; after the next line, or when this
// side has hung up, continues what it stopped. No shell runs while its child is stopped, since it would take notice: the
// outermost is stopped first and continued last. Without a foreground group either a prompting shell reads by itself, and
// the script ends without a "."; or the foreground is everything but the session's leader. A zombie has no /proc/PID/exe.
std::string script_end_input(bool is_prompting) {
    return std::string(is_prompting ? "[ $g ]||exit\n" : "") +
           "f= s= c=\n"
           "for p in $q;do\n"
           "[ ${p%.*} = ${g:-$l} ]&&[ ${p#*.} != $l ]&&f=\"$f ${p#*.}\"\n"
           "done\n"
           "[ \"$f\" ]||exit\n"
           "p=${f##* }\n"
           "while read r</proc/$p/stat&&set -- ${r##*) }&&[ $4 = $l ];do\n"
           "{ [ $3 != ${g:-$l} ]||[ $p = $l ];}&&s=\"$p $s\" c=\"$c $p\"\n"
           "p=$2\n"
           "done\n"
           "kill -STOP $s;echo .;read x;n=0 r=1\n"
           "while [ $r ]&&[ $((n+=1)) -le 20 ];do\n"
           "sleep .05;r=;for p in $f;do [ -e /proc/$p/exe ]&&r=1;done\n"
           "done\n"
           "echo .;read x;kill -CONT $c\n";
}

// The same in a process of its own, which holds nothing of ours: neither the connection it is about, which must hang up
// when we close it, nor our output, whose reader must see it end.
pid_t run_aside(const host_options &options, const std::string &command) {
    pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    for (int fd = 0; fd < 1024; ++fd) {
        close(fd);
    }
    for (int fd = 0; fd < 3; ++fd) {
        if (open("/dev/null", O_RDWR) != fd) {
            _exit(1);
        }
    }
    _exit(run_short(options, command) == 0 ? 0 : 1);
}

}  // namespace

int remote_start(const host_options &options, const std::string &request, int size_fd, remote_on_start on_start,
                 link_terminal *out) {
    if (request.size() > REMOTE_REQUEST_MAX) {
        say("The command is too long: the request has %zu bytes, the listener takes at most %zu. Put it into a script "
            "on the "
            "handset.",
            request.size(), REMOTE_REQUEST_MAX);
        return -1;
    }
    int64_t deadline = answer_deadline(options);
    for (;;) {
        link_turn listener;
        if (!link_begin(options, LINK_LISTENER, deadline, &listener)) {
            return -1;
        }
        exchange_end end = exchange(options, listener, request, size_fd, on_start, deadline, out);
        link_end(&listener);
        if (end == EXCHANGE_DONE) {
            return 0;
        }
        if (end == EXCHANGE_FAILED) {
            return -1;
        }
        // Hung up before the acknowledgement: nothing has been started, so asking again is safe.
        if (now_ms() >= deadline) {
            say("The agent hangs up on every request for a shell. Look into /data/local/log/sa.log on the handset.");
            return -1;
        }
    }
}

remote_mark mark_new() {
    unsigned char random[6] = {};
    if (getrandom(random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random))) {
        int64_t now = now_ms();
        memcpy(random, &now, sizeof(random));
    }
    remote_mark mark;
    mark.tag = "\x1e";  // a byte that text does not contain, so that prompts are never held back
    for (unsigned char byte : random) {
        mark.tag += text_of("%02x", byte);
    }
    mark.tag += ':';
    return mark;
}

std::string mark_wrap(const remote_mark &mark, const std::string &command, remote_input input) {
    // eval in a subshell: neither `exit` nor a syntax error in the command keeps the second mark from being written.
    // The trap lets this shell outlive a Ctrl-C meant for the command; children do not inherit it.
    // The closing loop reads the terminal through standard error: standard input may be the decoder's pipe.
    std::string run = "(eval " + shell_quoted(command) + ")" + (input == INPUT_NONE ? "</dev/null" : "") + ";" +
                      mark_text(mark, "$?") + ";while read x<&2;do :;done";
    std::string request = "shell:trap : 2 3;" + mark_text(mark, "$$") + ";";
    if (input == INPUT_FRAMED) {
        return request + "busybox sed -n '/^=$/q;p'|busybox base64 -d|{ " + run + "; }";
    }
    return request + run;
}

void mark_feed(remote_mark *mark, const char *data, size_t len, std::string *out) {
    const char *end = data + len;
    while (data < end) {
        if (mark->held.empty()) {
            const void *hit = memchr(data, mark->tag[0], static_cast<size_t>(end - data));
            const char *stop = hit != nullptr ? static_cast<const char *>(hit) : end;
            out->append(data, static_cast<size_t>(stop - data));
            data = stop;
        }
        if (data < end) {
            mark_byte(mark, *data++, out);
        }
    }
}

void mark_end(remote_mark *mark, std::string *out) {
    *out += mark->held;
    mark->held.clear();
}

int remote_run(const host_options &options, const std::string &command, int quiet_s, const char *what, remote_sink sink,
               void *context) {
    remote_mark mark = mark_new();
    link_terminal child;
    if (remote_start(options, mark_wrap(mark, command, INPUT_NONE), -1, nullptr, &child) != 0) {
        return -1;
    }
    int result = run_all(&child, &mark, quiet_s, what, sink, context);
    if (result != 0 && errno != 0) {
        say("Reading from the handset failed: %s.", strerror(errno));
    }
    link_close_terminal(&child);
    progress_clear();
    if (result == 0 && !mark.is_over) {
        std::string loss = link_loss(options);
        say("%s", loss.empty()
                      ? "The connection ended before the command did: the agent ended or was restarted. Try again."
                      : loss.c_str());
        return -1;
    }
    return result == 0 ? mark.status : -1;
}

int remote_output(const host_options &options, const std::string &command, int quiet_s, const char *what,
                  std::string *out) {
    output_of context = {out};
    return remote_run(options, command, quiet_s, what, collect, &context);
}

pid_t remote_signal_terminal(const host_options &options, const std::string &path, const char *signal_name,
                             remote_target target) {
    std::string script = script_find(pts_index(path)) + "kill -" + signal_name;
    return run_aside(options, script + (target == TARGET_ALL ? " $a" : " -- -${g:-$l}") + " 2>/dev/null;echo .");
}

bool remote_end_input(const host_options &options, bool is_prompting, link_terminal *terminal) {
    std::string script = script_find(pts_index(terminal->path)) + script_end_input(is_prompting);
    link_terminal helper;
    if (start_short(options, script, &helper) != 0) {
        return true;
    }
    bool is_open = true;
    if (await_point(helper)) {
        link_close_terminal(terminal);
        if (write(helper.fd, "\n", 1) == 1) {
            await_point(helper);
        }
        is_open = link_reopen_terminal(options, terminal);
    }
    link_close_terminal(&helper);
    return is_open;
}

pid_t remote_signal_group(const host_options &options, long pid, const char *signal_name) {
    return run_aside(options, text_of("kill -%s -- -%ld 2>/dev/null;echo .", signal_name, pid));
}

std::string shell_quoted(const std::string &text) {
    std::string quoted = "'";
    for (char byte : text) {
        if (byte == '\'') {
            quoted += "'\\''";
        } else {
            quoted += byte;
        }
    }
    return quoted + "'";
}
