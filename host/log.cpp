// The diagnostic log through the remote shell. A follower knows the file that it reads by its inode, which rotation
// keeps, and counts the bytes that it has got: after a broken connection the next one goes on behind the last byte,
// whichever generation that has become. Owns no state.

#include "log.h"

#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "message.h"
#include "remote.h"
#include "stream.h"

namespace {

const char *const LOG_PATH = "/data/local/log/sa.log";
constexpr int QUIET_S = 60;
constexpr int FOLLOW_LINES = 10;
constexpr int STEP_MS = 1000;
constexpr int FOREVER_S = INT_MAX / 1000;
constexpr char NOTE = '\x1f';  // begins and ends a note of the follower's script; the agent's lines have no such byte

struct follower {
    unsigned long long inode = 0;   // of the file being read, 0 before the first note
    unsigned long long offset = 0;  // bytes of it that have been printed
    std::string note;               // a note of which the end has not come, NOTE in front
};

// A terminal would go back to the beginning of the line at the carriage return of a logged request.
bool show(const std::string &text) {
    static const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    std::string shown;
    for (char byte : text) {
        shown += is_terminal && byte == '\r' ? std::string("\\r") : std::string(1, byte);
    }
    print_text(shown);
    return print_is_good();
}

bool sink_print(void *, const char *data, size_t len) {
    return show(std::string(data, len));
}

// A note has come: "INODE OFFSET" of the file that the following bytes are from.
void take_note(follower *state) {
    char *rest = nullptr;
    state->inode = strtoull(state->note.c_str() + 1, &rest, 10);
    state->offset = strtoull(rest, nullptr, 10);
    state->note.clear();
}

bool sink_follow(void *context, const char *data, size_t len) {
    follower *state = static_cast<follower *>(context);
    std::string text;
    for (const char *at = data; at < data + len; ++at) {
        if (!state->note.empty() && *at == NOTE) {
            take_note(state);
        } else if (!state->note.empty() || *at == NOTE) {
            state->note += *at;
        } else {
            text += *at;
            ++state->offset;
        }
    }
    return show(text);
}

// Prints from `inode` and `offset` on, the generations between that file and the live one included, and then what is
// appended; where no file has that inode, the last `lines` lines of the live one first. Each file is announced by a note.
// A new live file is opened once the old one has been read to its end. Between two looks the script reads the terminal,
// which fails once the client has hung up; a write to a terminal that nobody has open would not.
std::string follow_script(const follower &state, int lines) {
    return text_of(
        "f=%s;"
        "n(){ echo \"\\0037$(stat -Lc %%i /proc/self/fd/3 3<&3) $1\\0037\\c\";};"
        "o=%llu p=;for g in .5 .4 .3 .2 .1 \"\";do "
        "[ \"$p\" ]||[ \"$(stat -c %%i $f$g 2>/dev/null)\" = %llu ]||continue;"
        "[ -e $f$g ]||continue;exec 3<$f$g;p=1;n $o;tail -c +$((o+1)) <&3;o=0;done;"
        "[ \"$p\" ]||{ until [ -e $f ];do sleep 1;done;exec 3<$f;"
        "o=$(($(wc -c <$f)-$(tail -n %d $f|wc -c)));[ $o -ge 0 ]||o=0;n $o;tail -c +$((o+1)) <&3;};"
        "while :;do cat <&3;[ -e $f ]&&[ ! $f -ef /proc/self/fd/3 ]&&{ cat <&3;exec 3<$f;n 0;continue;};"
        "read -t 0.5 x<&2;[ $? -gt 128 ]||exit 0;done",
        LOG_PATH, state.offset, state.inode, lines);
}

// Passes on the output of one connection. Result: whether another connection can go on where this one ended.
bool follow_connection(const link_terminal &child, remote_mark *mark, follower *state) {
    bool is_open = true;
    while (is_open && !mark->is_over) {
        char buf[65536];
        long got = read_some(child.fd, buf, sizeof(buf), now_ms() + STEP_MS);
        if (got < 0 && errno == ETIMEDOUT) {
            continue;
        }
        std::string out;
        if (got > 0) {
            mark_feed(mark, buf, static_cast<size_t>(got), &out);
        }
        is_open = got > 0;
        if (!sink_follow(state, out.data(), out.size())) {
            return false;
        }
    }
    state->note.clear();
    if (mark->is_over) {
        say("The handset cannot follow its log (status %d): stat, tail and a shell with read -t are needed there.",
            mark->status);
        return false;
    }
    return true;
}

int follow(host_options options) {
    follower state;
    for (bool is_first = true;; is_first = false) {
        remote_mark mark = mark_new();
        std::string request = mark_wrap(
            mark, follow_script(state, options.line_count < 0 ? FOLLOW_LINES : options.line_count), INPUT_NONE);
        link_terminal child;
        if (remote_start(options, request, -1, nullptr, &child) != 0) {
            if (is_first) {
                return HOST_NO_WAY;
            }
            poll(nullptr, 0, STEP_MS);  // there is a listener, and it refuses: the handset may still be booting
            continue;
        }
        bool goes_on = follow_connection(child, &mark, &state);
        link_close_terminal(&child);
        if (!goes_on) {
            return HOST_ERROR;
        }
        say("The connection has ended. Waiting for the agent.");
        options.is_patient = true;
        options.timeout_s = FOREVER_S;
    }
}

}  // namespace

int log_show(const host_options &options) {
    if (options.is_follow) {
        return follow(options);
    }
    std::string command = options.line_count < 0 ? std::string("cat ") + LOG_PATH
                                                 : text_of("tail -n %d %s", options.line_count, LOG_PATH);
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : QUIET_S;
    int status = remote_run(options, command + " 2>/dev/null", quiet_s, nullptr, sink_print, nullptr);
    if (status > 0) {
        say("There is no diagnostic log %s on the handset.", LOG_PATH);
    }
    return status == 0 ? HOST_OK : status < 0 ? HOST_NO_WAY : HOST_ERROR;
}
