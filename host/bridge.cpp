// The loop between a remote child and the streams of this process. Owns the two buffers between them; one poll a round,
// signals only while it waits, so that nothing is lost between a look and a wait.

#include "bridge.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "frame.h"
#include "line_editor.h"
#include "local_tty.h"
#include "message.h"

namespace {

// A marked child waits for us before it ends, so a slow reader may hold it back. An unmarked one takes its last bytes
// with it 200 ms after its end: everything is read at once, up to a size at which holding back is the lesser evil.
constexpr size_t OUT_MAX_MARKED = 256 * 1024;
constexpr size_t OUT_MAX_BARE = 64 * 1024 * 1024;
constexpr size_t OUT_PIECE = 4096;  // a pipe that polls writable takes this much without blocking
constexpr size_t IN_MAX = 16 * 1024;

constexpr char BYTE_END = 4;
constexpr char BYTE_SUSPEND = 26;

// The keys that are signals while the foreground program has not switched that off.
struct signal_key {
    char byte;
    const char *name;
    const char *shown;
};
constexpr signal_key SIGNAL_KEYS[] = {{3, "INT", "^C"}, {28, "QUIT", "^\\"}, {BYTE_SUSPEND, "TSTP", "^Z"}};

const char ESCAPE_HELP[] =
    "\r\n"
    "~.   leave the remote shell\r\n"
    "~^Z  suspend sa-host\r\n"
    "~~   send ~ itself\r\n"
    "~?   this help\r\n"
    "Escapes are looked for at the beginning of a line only.\r\n";

enum escape_state { ESCAPE_LINE_START, ESCAPE_TILDE, ESCAPE_INSIDE };

struct bridge {
    const host_options *options;
    link_terminal *child;
    bridge_plan *plan;
    std::string to_child;    // input on its way, already framed
    std::string frame_rest;  // bytes of input short of a line
    std::string to_out;      // output on its way
    size_t out_done = 0;     // bytes of to_out already written
    char last_in = '\n';     // last byte of input, for ends_with_eot
    bool is_child_gone = false;
    bool is_escaped = false;
    bool is_reader_gone = false;
    std::string typed;        // what the person has typed and nobody has looked at yet
    bool is_end_due = false;  // the person has typed the end of the input; what is typed later waits for it
    escape_state escape = ESCAPE_LINE_START;
    link_reading reading;      // as of the last look
    bool is_look_due = false;  // something has been typed since, and its reader may read differently now
    line_editor editor;
    pid_t messenger = -1;  // process that delivers a signal on the handset, -1 for none
    bool is_resize_due = false;
};

bool is_child_done(const bridge &b) {
    return b.is_child_gone || b.plan->mark.is_over;
}

// ---- Signals on the handset

// Delivers a signal to the child's session while the bridge goes on.
void signal_session(bridge *b, const char *name, remote_target target) {
    if (b->messenger < 0) {  // one at a time; the person will press again
        b->messenger = remote_signal_terminal(*b->options, b->child->path, name, target);
    }
}

void reap_messenger(bridge *b) {
    if (b->messenger > 0 && waitpid(b->messenger, nullptr, WNOHANG) != 0) {
        b->messenger = -1;
    }
}

void look_after_size(bridge *b) {
    if (m_local_events.is_resized != 0) {
        m_local_events.is_resized = 0;
        link_copy_size(*b->options, *b->child, b->plan->in_fd);
        b->is_resize_due = b->plan->is_raw;
    }
    if (b->is_resize_due && b->messenger < 0) {
        b->is_resize_due = false;
        signal_session(b, "WINCH", TARGET_ALL);
    }
}

// ---- Input

// What follows a tilde at the beginning of a line. Result: whether the byte was an escape.
bool take_escape(bridge *b, char byte) {
    switch (byte) {
        case '.': b->is_escaped = true; return true;
        case '?': b->to_out += ESCAPE_HELP; return true;
        case BYTE_SUSPEND: m_local_events.is_to_suspend = 1; return true;
        default: return false;
    }
}

// Looks how the foreground program reads now. The kernel of a terminal between a person and a program would turn typed
// bytes into lines, echo and signals; between this process and the child there is none, so it is done here.
void look_at_reading(bridge *b) {
    if (!link_get_reading(*b->options, *b->child, &b->reading)) {
        b->reading = link_reading();
    }
    if (!b->reading.is_by_lines) {
        line_editor_release(&b->editor, &b->to_child);
    }
}

// Result: whether the byte was a signal.
bool take_signal_key(bridge *b, char byte) {
    if (!b->reading.has_signal_keys) {
        return false;
    }
    for (const signal_key &key : SIGNAL_KEYS) {
        if (byte == key.byte) {
            b->editor.line.clear();
            b->to_out += b->reading.is_echoed ? key.shown : "";
            signal_session(b, key.name, TARGET_FOREGROUND);
            return true;
        }
    }
    return false;
}

void type_byte(bridge *b, char byte) {
    b->escape = byte == '\r' || byte == '\n' ? ESCAPE_LINE_START : ESCAPE_INSIDE;
    if (take_signal_key(b, byte)) {
        return;
    }
    if (byte == '\r' && b->reading.is_cr_newline) {
        byte = '\n';
    }
    if (!b->reading.is_by_lines) {
        b->to_child += byte;
        b->to_out += b->reading.is_echoed ? std::string(1, byte) : "";
    } else if (!line_editor_type(&b->editor, byte, b->reading.is_echoed, &b->to_child, &b->to_out)) {
        b->is_end_due = true;
        b->escape = ESCAPE_LINE_START;
    }
}

void take_typed_byte(bridge *b, char byte) {
    if (b->escape == ESCAPE_LINE_START && byte == '~') {
        b->escape = ESCAPE_TILDE;
        return;
    }
    if (b->escape == ESCAPE_TILDE) {
        b->escape = ESCAPE_LINE_START;
        if (take_escape(b, byte)) {
            return;
        }
        type_byte(b, '~');
        if (byte == '~') {
            return;
        }
    }
    type_byte(b, byte);
}

// Takes what has been typed, up to the end of the input: what is typed behind it is for the next reader.
void take_typed(bridge *b) {
    look_at_reading(b);
    b->is_look_due = true;
    size_t taken = 0;
    while (taken < b->typed.size() && !b->is_escaped && !b->is_end_due) {
        take_typed_byte(b, b->typed[taken++]);
    }
    b->typed.erase(0, taken);
}

// Tells the end of the input once everything typed before it is on its way.
void end_typed(bridge *b) {
    if (!b->is_end_due || !b->to_child.empty()) {
        return;
    }
    b->is_end_due = false;
    b->is_child_gone = !remote_end_input(*b->options, b->plan->is_prompting, b->child);
    if (!b->is_child_gone && !b->typed.empty()) {
        take_typed(b);
    }
}

void take_framed(bridge *b, const char *data, size_t len) {
    b->frame_rest.append(data, len);
    size_t at = 0;
    for (; b->frame_rest.size() - at >= FRAME_BYTES; at += FRAME_BYTES) {
        frame_line(b->frame_rest, at, FRAME_BYTES, &b->to_child);
    }
    size_t whole = (b->frame_rest.size() - at) / 3 * 3;
    if (whole > 0) {
        frame_line(b->frame_rest, at, whole, &b->to_child);
    }
    b->frame_rest.erase(0, at + whole);
}

void end_input(bridge *b) {
    b->plan->in_fd = -1;
    if (b->plan->is_framed) {
        if (!b->frame_rest.empty()) {
            frame_line(b->frame_rest, 0, b->frame_rest.size(), &b->to_child);
        }
        b->to_child += FRAME_END;
    } else if (b->plan->ends_with_eot) {
        if (b->last_in != '\n' && b->last_in != '\r') {
            b->to_child += '\n';  // Ctrl-D ends the input at the beginning of a line only
        }
        b->to_child += BYTE_END;
    }
}

void read_input(bridge *b) {
    char buf[IN_MAX / 2];
    ssize_t got = read(b->plan->in_fd, buf, sizeof(buf));
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    if (got <= 0) {
        end_input(b);
        return;
    }
    size_t len = static_cast<size_t>(got);
    b->last_in = buf[len - 1];
    if (b->plan->is_framed) {
        take_framed(b, buf, len);
    } else if (b->plan->is_raw) {
        b->typed.append(buf, len);
        take_typed(b);
    } else {
        b->to_child.append(buf, len);
    }
}

void write_child(bridge *b) {
    ssize_t done = write(b->child->fd, b->to_child.data(), b->to_child.size());
    if (done > 0) {
        b->to_child.erase(0, static_cast<size_t>(done));
    } else if (done < 0 && errno != EAGAIN && errno != EINTR) {
        b->to_child.clear();  // hung up; the output still to be read tells how it ended
        b->plan->in_fd = -1;
    }
}

// ---- Output

size_t out_waiting(const bridge &b) {
    return b.to_out.size() - b.out_done;
}

void read_child(bridge *b) {
    char buf[65536];
    ssize_t got = read(b->child->fd, buf, sizeof(buf));
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        b->is_child_gone = true;
        mark_end(&b->plan->mark, &b->to_out);
    } else if (b->plan->has_mark) {
        mark_feed(&b->plan->mark, buf, static_cast<size_t>(got), &b->to_out);
    } else {
        b->to_out.append(buf, static_cast<size_t>(got));
    }
    // The shell may prompt now, and shows what it has been given so far; or what has been typed has ended a program that
    // leaves attributes behind which are to be put right before anybody reads or writes.
    if (!b->is_child_gone && b->plan->is_raw && (b->is_look_due || !b->editor.line.empty())) {
        b->is_look_due = false;
        look_at_reading(b);
    }
}

void write_out(bridge *b) {
    ssize_t done = write(STDOUT_FILENO, b->to_out.data() + b->out_done, std::min(out_waiting(*b), OUT_PIECE));
    if (done < 0) {
        b->is_reader_gone = errno != EAGAIN && errno != EINTR;
        if (b->is_reader_gone && errno != EPIPE) {
            say("Writing the output failed: %s.", strerror(errno));
        }
        return;
    }
    b->out_done += static_cast<size_t>(done);
    if (b->out_done == b->to_out.size()) {
        b->to_out.clear();
        b->out_done = 0;
    } else if (b->out_done >= OUT_MAX_MARKED) {
        b->to_out.erase(0, b->out_done);
        b->out_done = 0;
    }
}

// ---- The round

void one_round(bridge *b) {
    enum { FROM_CHILD, FROM_IN, TO_OUT, COUNT };
    size_t out_max = b->plan->has_mark ? OUT_MAX_MARKED : OUT_MAX_BARE;
    struct pollfd set[COUNT] = {{-1, 0, 0}, {-1, 0, 0}, {-1, 0, 0}};
    if (!is_child_done(*b)) {
        set[FROM_CHILD].events =
            static_cast<short>((out_waiting(*b) < out_max ? POLLIN : 0) | (b->to_child.empty() ? 0 : POLLOUT));
        set[FROM_CHILD].fd = set[FROM_CHILD].events != 0 ? b->child->fd : -1;  // a hang-up can wait for room
        set[FROM_IN].fd = b->to_child.size() < IN_MAX && !b->is_end_due ? b->plan->in_fd : -1;
        set[FROM_IN].events = POLLIN;
    }
    set[TO_OUT].fd = out_waiting(*b) > 0 ? STDOUT_FILENO : -1;
    set[TO_OUT].events = POLLOUT;
    struct timespec wait = {0, 200 * 1000 * 1000};
    // A messenger's end or a due resize has no descriptor: look again soon, but only while there is one.
    bool is_timed = b->messenger > 0 || b->is_resize_due;
    if (ppoll(set, COUNT, is_timed ? &wait : nullptr, local_wait_mask()) < 0) {
        return;
    }
    short readable = POLLIN | POLLHUP | POLLERR;
    if ((set[FROM_CHILD].revents & readable) != 0 && out_waiting(*b) < out_max) {
        read_child(b);
    }
    if ((set[FROM_CHILD].revents & POLLOUT) != 0 && !b->to_child.empty()) {
        write_child(b);
    }
    if ((set[FROM_IN].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0) {
        read_input(b);
    }
    if (set[TO_OUT].revents != 0) {
        write_out(b);
    }
}

void look_after_events(bridge *b) {
    reap_messenger(b);
    end_typed(b);
    if (m_local_events.is_to_suspend != 0) {
        m_local_events.is_to_suspend = 0;
        local_suspend(b->plan->in_fd);
    }
    if (b->plan->in_fd >= 0) {
        look_after_size(b);
    }
}

}  // namespace

bridge_end bridge_run(const host_options &options, link_terminal *child, bridge_plan *plan) {
    bridge b = {};
    b.options = &options;
    b.child = child;
    b.plan = plan;
    while (!is_child_done(b) || out_waiting(b) > 0) {
        one_round(&b);
        look_after_events(&b);
        if (m_local_events.end_signal != 0) {
            return BRIDGE_SIGNAL;
        }
        if (b.is_reader_gone) {
            return BRIDGE_NO_READER;
        }
        if (b.is_escaped) {
            return BRIDGE_ESCAPED;
        }
    }
    return BRIDGE_OVER;
}
