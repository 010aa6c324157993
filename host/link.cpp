// Turns on published names: the attempts, their deadline and the sentence after the last one. How an attempt is made
// belongs to the kind of link. Owns no state.

#include "link.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "link_kind.h"
#include "message.h"

namespace {

constexpr int ABSENT_MS = 1000;  // the agent replaces an endpoint within milliseconds; longer means that there is none
constexpr int RETRY_FIRST_MS = 1;
constexpr int RETRY_LAST_MS = 20;
constexpr int SHOW_WAIT_MS = 1000;

const link_kind &kind_of(const host_options &) {
    return m_link_local;
}

const std::string &path_of(const host_options &options, link_name name) {
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

std::string explain(const host_options &options, link_name name, const link_attempt &last) {
    const std::string &path = path_of(options, name);
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

}  // namespace

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
    if (turn->fd >= 0) {
        close(turn->fd);
        turn->fd = -1;
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

bool link_get_attributes(const host_options &options, const link_terminal &terminal, struct termios *attributes) {
    return kind_of(options).get_attributes(options, terminal, attributes);
}
