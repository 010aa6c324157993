// The sub-command `shell`: decides how a command is wrapped and where its input comes from, runs the bridge, and
// tells the end. Owns the connection and the terminal's raw mode for the time of the conversation.

#include "shell.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "bridge.h"
#include "local_tty.h"
#include "message.h"
#include "remote.h"

namespace {

// What one conversation does, settled before anything is sent.
struct shell_plan {
    std::string request;
    bridge_plan bridge;
};

bool is_null_device(int fd) {
    struct stat st = {};
    return fstat(fd, &st) != 0 || (S_ISCHR(st.st_mode) && st.st_rdev == makedev(1, 3));
}

remote_input choose_input(const host_options &options, bool is_tty) {
    if (options.is_no_input || is_null_device(STDIN_FILENO)) {
        return INPUT_NONE;
    }
    return is_tty ? INPUT_PLAIN : INPUT_FRAMED;
}

// A bare request: the bytes pass as they are, and no status comes back.
void plan_bare(const std::string &command, remote_input input, shell_plan *plan) {
    plan->request = "shell:" + command;
    plan->bridge.in_fd = input == INPUT_NONE ? -1 : STDIN_FILENO;
    plan->bridge.ends_with_eot = command.empty();
    plan->bridge.is_framed = false;
    plan->bridge.has_mark = false;
}

void plan_wrapped(const std::string &command, remote_input input, shell_plan *plan) {
    plan->bridge.mark = mark_new();
    plan->request = mark_wrap(plan->bridge.mark, command, input);
    plan->bridge.in_fd = input == INPUT_NONE ? -1 : STDIN_FILENO;
    plan->bridge.ends_with_eot = input == INPUT_PLAIN;
    plan->bridge.is_framed = input == INPUT_FRAMED;
    plan->bridge.has_mark = true;
    if (plan->request.size() > REMOTE_REQUEST_MAX && command.size() + strlen("shell:") <= REMOTE_REQUEST_MAX) {
        say("The command is so long that the part which reports its exit status does not fit (%zu of %zu bytes). It "
            "runs "
            "without: the exit status will be 0 whatever happens, and its input has no end.",
            plan->request.size(), REMOTE_REQUEST_MAX);
        plan_bare(command, input, plan);
    }
}

// A shell that prompts, or one that reads its commands from an input that is no terminal and prompts nobody.
const char *shell_command(bool is_tty) {
    return is_tty ? "exec /system/bin/sh -" : "sh";
}

void make_plan(const host_options &options, const std::string &command, bool is_tty, shell_plan *plan) {
    remote_input input = choose_input(options, is_tty);
    plan->bridge.is_raw = is_tty && !options.is_no_input && (command.empty() || options.is_terminal);
    plan->bridge.is_prompting = command.empty();
    if (options.is_bare) {
        plan_bare(command, input, plan);
    } else {
        plan_wrapped(command.empty() ? shell_command(is_tty) : command, input, plan);
    }
    if (plan->bridge.in_fd < 0 && command.empty() && options.is_bare) {
        plan->bridge.in_fd = STDIN_FILENO;  // a shell without input would wait for ever; its end is read at once
    }
}

const char *signal_word(int number) {
    switch (number) {
        case SIGINT: return "INT";
        case SIGTERM: return "TERM";
        case SIGQUIT: return "QUIT";
        default: return "HUP";
    }
}

// Tells what runs on the handset that its client leaves: no kernel does it, since the terminal controls no session.
void take_leave(const host_options &options, const shell_plan &plan, const link_terminal &child, int number) {
    // A shell that prompts gives each job a group of its own; a command's processes may have other streams.
    pid_t messenger = !plan.bridge.is_raw && plan.bridge.mark.pid > 0
                          ? remote_signal_group(options, plan.bridge.mark.pid, signal_word(number))
                          : remote_signal_terminal(options, child.path, signal_word(number), TARGET_ALL);
    while (messenger > 0 && waitpid(messenger, nullptr, 0) < 0 && errno == EINTR) {
    }
}

int tell_end(const host_options &options, const shell_plan &plan) {
    if (!plan.bridge.has_mark) {
        return HOST_OK;
    }
    if (plan.bridge.mark.is_over) {
        return plan.bridge.mark.status;
    }
    std::string loss = link_loss(options);
    say("%s", loss.empty()
                  ? "The command ended without reporting its exit status: its shell was killed, or the agent ended."
                  : loss.c_str());
    return HOST_SHELL;
}

int finish(const host_options &options, shell_plan *plan, link_terminal *child, bridge_end end) {
    int number = end == BRIDGE_SIGNAL ? m_local_events.end_signal : end == BRIDGE_NO_READER ? SIGPIPE : SIGHUP;
    local_raw_leave();
    if (end != BRIDGE_OVER) {
        take_leave(options, *plan, *child, number);  // signals still held back: a hang-up sends more than one
    }
    local_signals_release();
    if (end == BRIDGE_OVER) {
        return tell_end(options, *plan);
    }
    if (end == BRIDGE_ESCAPED) {
        say("Left the remote shell.");
        return HOST_SHELL;
    }
    link_close_terminal(child);
    local_die_by(number);
}

// From the acknowledgement on there is something on the handset to be told when a signal ends this process.
void start_streams(const host_options &, const link_terminal &) {
    local_signals_take();
}

void start_typing(const host_options &options, const link_terminal &child) {
    link_prepare_typing(options, child);  // without it the person has the terminal that the agent made: all bytes pass
    local_signals_take();
}

}  // namespace

int shell_run(const host_options &options, const std::string &command) {
    bool is_tty = isatty(STDIN_FILENO) != 0;
    shell_plan plan;
    make_plan(options, command, is_tty, &plan);
    link_terminal child;
    int size_fd = is_tty ? STDIN_FILENO : -1;
    if (remote_start(options, plan.request, size_fd, plan.bridge.is_raw ? start_typing : start_streams, &child) != 0) {
        local_signals_release();
        return HOST_SHELL;
    }
    if (plan.bridge.is_raw && local_raw_enter(STDIN_FILENO) != 0) {
        say("The terminal cannot be put into raw mode: %s.", strerror(errno));
        plan.bridge.is_raw = false;
    }
    bridge_end end = bridge_run(options, &child, &plan.bridge);
    int status = finish(options, &plan, &child, end);
    link_close_terminal(&child);
    return status;
}
