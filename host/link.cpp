// Turns on published names: the attempts, their deadline and the sentence after the last one. How an attempt is made
// belongs to the kind of link. Owns no state.

#include "link.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "link_kind.h"
#include "message.h"

namespace {

constexpr int ABSENT_MS = 1000;  // the agent replaces an endpoint within milliseconds; longer means that there is none
constexpr int RETRY_FIRST_MS = 1;
constexpr int RETRY_LAST_MS = 20;
constexpr int SHOW_WAIT_MS = 1000;

const link_kind &kind_of(const host_options &options) {
    if (!options.tty.empty()) {
        return m_link_tty;
    }
    return options.is_adb || !options.serial.empty() ? m_link_adb : m_link_local;
}

std::string path_of(const host_options &options, link_name name) {
    if (!options.tty.empty()) {
        return name == LINK_CHANNEL ? link_tty_device(options.tty) : "";
    }
    return name == LINK_CHANNEL ? options.channel : options.listener;
}

const char *role_of(link_name name) {
    return name == LINK_CHANNEL ? "command channel" : "remote-shell listener";
}

std::string explain_refusal(const std::string &path, const char *role, int error) {
    if (error == EACCES || error == EPERM) {
        return text_of("No permission to open the %s %s: run sa-host as root or as a member of group %u.", role,
                       path.c_str(), AGENT_PTY_GID);
    }
    if (error == ENOTTY) {
        return text_of("%s is no terminal, so it cannot be the %s. Name the right path (see --help).", path.c_str(),
                       role);
    }
    return text_of("Cannot open the %s %s: %s. Check the path and --root.", role, path.c_str(), strerror(error));
}

// With EXTPROC the kernel keeps the attributes of the agent's terminal but does nothing of what they say to the child's
// output, which is input to it: no echo, no lines, no signals. The bytes to the child must not be processed either.
bool is_passing(const struct termios &attributes) {
    return (attributes.c_lflag & EXTPROC) != 0 && (attributes.c_oflag & OPOST) == 0;
}

std::string explain(const host_options &options, link_name name, const link_attempt &last) {
    std::string path = path_of(options, name);
    const char *role = role_of(name);
    if (!last.reason.empty()) {
        return last.reason;
    }
    switch (last.state) {
        case LINK_ABSENT: return kind_of(options).explain_absence(options, path, role);
        case LINK_FOREIGN:
            return text_of(
                "The %s %s leads to a terminal that is not the agent's (owner %u:%u): the link is left over from an "
                "agent that has ended. Start the agent and try again.",
                role, path.c_str(), last.uid, last.gid);
        case LINK_BUSY:
            return text_of(
                "The %s %s is busy: another client is using it. Try again when it has finished, or wait longer with "
                "--timeout.",
                role, path.c_str());
        case LINK_USED:
            return text_of(
                "The %s %s is busy: the agent is still at work for a client that has gone, or another program keeps "
                "the terminal open. Try again later, or wait longer with --timeout.",
                role, path.c_str());
        case LINK_REFUSED:
        case LINK_TAKEN: break;
    }
    return explain_refusal(path, role, last.error);
}

// Reads SA_HOST_LINK: "local", "local:ROOT", "adb", "adb:SERIAL", "tty:DEVICE" or "tty:DEVICE,SPEED".
bool take_environment(const char *text, host_options *options) {
    const char *colon = strchr(text, ':');
    std::string kind(text, colon != nullptr ? static_cast<size_t>(colon - text) : strlen(text));
    std::string rest = colon != nullptr ? colon + 1 : "";
    bool is_empty = colon != nullptr && rest.empty();
    if (kind == "local" && !is_empty) {
        options->root = colon != nullptr ? rest : options->root;
    } else if (kind == "adb" && !is_empty) {
        options->is_adb = true;
        options->serial = rest;
    } else if (kind == "tty" && !rest.empty()) {
        options->tty = rest;
    } else {
        say("SA_HOST_LINK is \"%s\": write local:ROOT, adb, adb:SERIAL, tty:DEVICE or tty:DEVICE,SPEED.", text);
        return false;
    }
    return true;
}

}  // namespace

bool link_choose(host_options *options) {
    bool is_adb = options->is_adb || !options->serial.empty();
    int kinds = (options->root != "/" ? 1 : 0) + (is_adb ? 1 : 0) + (!options->tty.empty() ? 1 : 0);
    if (kinds > 1) {
        say("Give one of --root, --adb or --serial, and --tty: a handset is reached one way.");
        return false;
    }
    const char *environment = getenv("SA_HOST_LINK");
    if (kinds == 0 && environment != nullptr && *environment != '\0' && !take_environment(environment, options)) {
        return false;
    }
    const char *serial = getenv("ANDROID_SERIAL");
    if (options->is_adb && options->serial.empty() && serial != nullptr) {
        options->serial = serial;
    }
    speed_t speed = 0;
    if (!link_tty_speed(options->tty, &speed)) {
        say("\"%s\" does not end in the speed of a serial line, such as 115200.", options->tty.c_str());
        return false;
    }
    return true;
}

std::string link_loss(const host_options &options) {
    return kind_of(options).loss(options);
}

bool link_carries(const host_options &options, link_name name) {
    return !path_of(options, name).empty();
}

bool link_begin(const host_options &options, link_name name, int64_t deadline_ms, link_turn *turn) {
    int64_t start = now_ms();
    int64_t absent_since = start;
    for (int wait = RETRY_FIRST_MS;; wait = std::min(wait * 2, RETRY_LAST_MS)) {
        link_attempt attempt = kind_of(options).take(options, path_of(options, name), turn);
        if (attempt.state == LINK_TAKEN) {
            progress_clear();
            return true;
        }
        int64_t now = now_ms();
        bool is_waiting = attempt.state == LINK_BUSY || attempt.state == LINK_USED;
        if (is_waiting) {
            absent_since = now;
        }
        bool waits_all_along = is_waiting || options.is_patient;
        int64_t limit = waits_all_along ? deadline_ms : std::min(deadline_ms, absent_since + ABSENT_MS);
        if (attempt.state == LINK_REFUSED || now >= limit) {
            say("%s", explain(options, name, attempt).c_str());
            return false;
        }
        if (waits_all_along && now - start >= SHOW_WAIT_MS) {
            progress_show(text_of("waiting for the %s%s: %s", role_of(name),
                                  is_waiting ? ", busy with another client" : "",
                                  in_time(static_cast<uint64_t>((now - start) / 1000)).c_str()));
        }
        poll(nullptr, 0, wait);
    }
}

void link_end(link_turn *turn) {
    for (int *fd : {&turn->fd, &turn->lock}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

std::string link_identity(const host_options &options, link_name name) {
    return kind_of(options).identity(options, path_of(options, name));
}

bool link_is_present(const host_options &options, link_name name) {
    link_turn turn;
    link_attempt attempt = kind_of(options).take(options, path_of(options, name), &turn);
    link_end(&turn);
    return attempt.state == LINK_TAKEN || attempt.state == LINK_BUSY || attempt.state == LINK_USED;
}

void link_discard_input(const link_turn &turn) {
    char buf[4096];  // the pieces are counted: input that never stops is no reason to wait
    for (int pieces = 0; pieces < 16 && read(turn.fd, buf, sizeof(buf)) > 0; ++pieces) {
    }
}

bool link_open_terminal(const host_options &options, const link_turn &listener, const std::string &path,
                        link_terminal *terminal) {
    return kind_of(options).open_terminal(options, listener, path, terminal);
}

void link_close_terminal(link_terminal *terminal) {
    if (terminal->fd >= 0) {
        close(terminal->fd);
        terminal->fd = -1;
    }
}

void link_copy_size(const host_options &options, const link_terminal &terminal, int from) {
    struct winsize size = {};
    if (from >= 0 && ioctl(from, TIOCGWINSZ, &size) == 0) {
        kind_of(options).set_size(options, terminal, size);
    }
}

bool link_prepare_typing(const host_options &options, const link_terminal &terminal) {
    return kind_of(options).set_passing(options, terminal, true);
}

bool link_get_reading(const host_options &options, const link_terminal &terminal, link_reading *reading) {
    struct termios attributes = {};
    if (!kind_of(options).get_attributes(options, terminal, &attributes)) {
        return false;
    }
    if (!is_passing(attributes) && !kind_of(options).set_passing(options, terminal, false)) {
        return false;
    }
    reading->is_by_lines = (attributes.c_lflag & ICANON) != 0;
    reading->is_echoed = (attributes.c_lflag & ECHO) != 0;
    reading->has_signal_keys = (attributes.c_lflag & ISIG) != 0;
    reading->is_cr_newline = (attributes.c_iflag & ICRNL) != 0;
    return true;
}

bool link_reopen_terminal(const host_options &options, link_terminal *terminal) {
    return kind_of(options).reopen_terminal(options, terminal);
}
