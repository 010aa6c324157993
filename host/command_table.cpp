// The rows of sub-commands and options, with the function that runs each. Owns no state beyond the tables.

#include "command_table.h"

#include <iterator>

#include <algorithm>

#include "channel.h"
#include "console.h"
#include "fetch.h"
#include "files.h"
#include "help.h"
#include "kill.h"
#include "log.h"
#include "message.h"
#include "sets.h"
#include "shell.h"
#include "shell_stderr.h"
#include "status.h"
#include "view/view.h"
#include "wait.h"

namespace {

int run_request(const command_row &row, const host_options &options, const word_list &operands) {
    request made;
    std::string why;
    if (!request_build(row.word, row.request, operands, &made, &why)) {
        say("%s", why.c_str());
        return HOST_REFUSED;
    }
    return channel_send(options, {made});
}

int run_query(const command_row &row, const host_options &options, const word_list &operands) {
    if (!options.is_quiet && !options.is_json) {
        return run_request(row, options, operands);
    }
    request made;
    std::string why;
    std::string result;
    if (!request_build(row.word, row.request, operands, &made, &why)) {
        say("%s", why.c_str());
        return HOST_REFUSED;
    }
    int status = channel_ask(options, made, &result);
    if (status != HOST_OK) {
        return status;
    }
    bool runs = !result.empty() && result.back() == '1';
    if (options.is_json) {
        print("{\"service\": %s, \"runs\": %s}\n", json_quoted(operands[0]).c_str(), runs ? "true" : "false");
    }
    return options.is_quiet && !runs ? HOST_STOPPED : HOST_OK;
}

int run_save_log(const command_row &row, const host_options &options, const word_list &operands) {
    if (!options.fetch_dir.empty()) {
        return fetch_saved(options, options.fetch_dir);
    }
    sets_flush_packets(options);
    return run_request(row, options, operands);
}

int run_send(const command_row &, const host_options &options, const word_list &operands) {
    std::vector<request> requests;
    for (const std::string &text : operands) {
        request made;
        std::string why;
        if (!request_from_text(text, &made, &why)) {
            say("%s", why.c_str());
            return HOST_REFUSED;
        }
        requests.push_back(made);
    }
    return channel_send(options, requests);
}

int run_shell(const command_row &, const host_options &options, const word_list &operands) {
    std::string command;
    for (const std::string &word : operands) {
        command += (command.empty() ? "" : " ") + word;
    }
    if (!options.is_stderr_apart) {
        return shell_run(options, command);
    }
    if (command.empty()) {
        say("--stderr needs a command: the two outputs of an interactive shell are one terminal.");
        return HOST_REFUSED;
    }
    return shell_run_stderr_apart(options, command);
}

int run_fetch(const command_row &, const host_options &options, const word_list &operands) {
    return fetch_set(options, operands.size() == 2 ? operands[0] : "", operands.back());
}

int run_status(const command_row &, const host_options &options, const word_list &) {
    return status_show(options);
}

int run_sets(const command_row &, const host_options &options, const word_list &) {
    return sets_show(options);
}

int run_wait(const command_row &, const host_options &options, const word_list &) {
    return wait_agent(options);
}

int run_log(const command_row &, const host_options &options, const word_list &) {
    return log_show(options);
}

int run_view(const command_row &, const host_options &options, const word_list &operands) {
    return view_set(operands[0], {options.since, options.until, options.grep, options.only, options.html});
}

int run_pull(const command_row &, const host_options &options, const word_list &operands) {
    return file_pull(options, operands[0], operands.size() == 2 ? operands[1] : ".");
}

int run_push(const command_row &, const host_options &options, const word_list &operands) {
    return file_push(options, operands[0], operands[1]);
}

int run_kill(const command_row &, const host_options &options, const word_list &) {
    return kill_agent(options);
}

int run_console(const command_row &, const host_options &options, const word_list &) {
    return console_run(options);
}

int run_completion(const command_row &, const host_options &, const word_list &operands) {
    return help_completion(operands[0]);
}

int run_help(const command_row &, const host_options &, const word_list &operands) {
    if (operands.empty()) {
        help_summary();
        return HOST_OK;
    }
    const command_row *row = command_find(operands[0]);
    if (row == nullptr) {
        say("There is no sub-command \"%s\". See sa-host --help.", operands[0].c_str());
        return HOST_REFUSED;
    }
    help_page(*row);
    return HOST_OK;
}

constexpr request_kind NO_REQUEST = {nullptr, SHAPE_BARE, 0};

typedef host_options all;

// clang-format off
const command_row COMMAND_ROWS[] = {
    {"query",
     "NAME",
     1,
     1,
     nullptr,
     OPERAND_SERVICE,
     false,
     "ask whether a service runs",
     "A service runs when the first argument of a process contains NAME. Prints \"QUERY_SERVICE: 1\"\n"
     "when it runs, \"QUERY_SERVICE: 0\" when it does not.",
     run_query,
     {"+QUERY_SERVICE", SHAPE_NAME, 30}},
    {"start",
     "NAME",
     1,
     1,
     nullptr,
     OPERAND_SERVICE,
     false,
     "start a service and wait for it",
     "Ends once a process of that name runs, or with ERROR when none has appeared within 8 s.",
     run_request,
     {"+START_SERVICE", SHAPE_NAME, 60}},
    {"stop",
     "NAME",
     1,
     1,
     nullptr,
     OPERAND_SERVICE,
     false,
     "stop a service and wait for its end",
     "Ends once no process of that name runs, or with ERROR when one still runs after 10 s.",
     run_request,
     {"+STOP_SERVICE", SHAPE_NAME, 60}},
    {"autostart",
     "add|remove|query NAME",
     2,
     2,
     "add remove query",
     OPERAND_SERVICE,
     false,
     "services that are started with the agent",
     "The list has ten entries and survives restarts of the agent and of the handset. sa-host status\n"
     "prints it.",
     run_request,
     {"+AUTO_START_SERVICE", SHAPE_LIST, 30}},
    {"system",
     "COMMAND...",
     1,
     -1,
     nullptr,
     OPERAND_OTHER,
     true,
     "run a shell command line (five tries)",
     "The words are joined with blanks, as those of shell are. OK when one of at most five runs ended\n"
     "with status 0. The output is not returned: use shell to read it. The command line cannot contain\n"
     "a double quote.",
     run_request,
     {"+SYSTEM", SHAPE_COMMAND, 600}},
    {"kernel-log",
     "on|off|query",
     1,
     1,
     "on off query",
     OPERAND_OTHER,
     false,
     "kernel-message capture",
     "Off whenever the agent starts. Switched on beside the kernel-message collector, each message\n"
     "goes to one of the two readers.",
     run_request,
     {"+KERNEL_LOG", SHAPE_SWITCH, 30}},
    {"dmesg-log",
     "on|off|query",
     1,
     1,
     "on off query",
     OPERAND_OTHER,
     false,
     "kernel-log snapshots",
     "Switching it on takes one snapshot into /data/log/SystemLog/dmesg.log. Off whenever the agent starts.",
     run_request,
     {"+DMESG_LOG", SHAPE_SWITCH, 30}},
    {"packets",
     "on|off",
     1,
     1,
     "on off",
     OPERAND_OTHER,
     false,
     "packet-capture switch",
     "The tcpdump collector does not depend on this switch: it follows the property that sa-host\n"
     "status prints. off after on kills the agent's process group; init starts the agent again.",
     run_request,
     {"+DATA_PACKETS_LOG", SHAPE_SETTING, 30}},
    {"save-log",
     "",
     0,
     0,
     nullptr,
     OPERAND_OTHER,
     false,
     "save all logs to the card",
     "Saves the collected logs and the state of the system into a new set on the card.",
     run_save_log,
     {"+SAVE_LOG", SHAPE_BARE, 1800}},
    {"delete-log", "", 0, 0, nullptr, OPERAND_OTHER, false, "delete the collected logs, start afresh",
     "Deletes the collectors' files in /data/local/log and starts the collectors again. sa.log and the\n"
     "sets on the card are kept.",
     run_request, {"+DELETE_LOG", SHAPE_BARE, 120}},

    {"status", "", 0, 0, nullptr, OPERAND_OTHER, false, "the state of the agent at a glance",
     "Process, switches, collectors with their files, free space, auto-start list, panic records, as\n"
     "the handset shows them to a remote command. The switches are those of the settings file: packets\n"
     "counts as it was when another switch was changed last.",
     run_status, NO_REQUEST},
    {"wait", "", 0, 0, nullptr, OPERAND_OTHER, false, "wait until the agent is up, or down",
     "Up: it answers on its command channel and listens for remote shells. Down: it publishes no\n"
     "command channel. Without -T it waits for as long as it takes.",
     run_wait, NO_REQUEST},
    {"log", "", 0, 0, nullptr, OPERAND_OTHER, false, "the agent's diagnostic log",
     "With -f it goes on with what the agent writes, over restarts of the agent and of the handset.", run_log,
     NO_REQUEST},
    {"send", "REQUEST...", 1, -1, nullptr, OPERAND_OTHER, false, "send requests as they are",
     "A request that does not begin with AT gets the prefix, and each gets a carriage return. Ends\n"
     "with the first request that fails.",
     run_send, NO_REQUEST},
    {"shell", "[COMMAND...]", 0, -1, nullptr, OPERAND_OTHER, true, "remote shell, or one command",
     "Without a command: a shell, on a terminal an interactive one. With one: runs it and ends with\n"
     "its exit status, or with 255 when sa-host itself failed. In a shell on a terminal, ~. at the\n"
     "beginning of a line leaves it and ~? lists what else there is.",
     run_shell, NO_REQUEST},
    {"sets", "", 0, 0, nullptr, OPERAND_OTHER, false, "list the saved log sets on the card",
     "Name, time, size and whether the set is complete: a save that was broken off has no bug report.", run_sets,
     NO_REQUEST},
    {"fetch", "[SET] DIR", 1, 2, nullptr, OPERAND_DIRECTORY, false, "copy a saved log set (the newest) into DIR",
     "The copy appears as DIR/SET once its size and checksum are right. A copy that was broken off\n"
     "goes on where it stopped when the same command is run again.",
     run_fetch, NO_REQUEST},
    {"view", "DIR", 1, 1, nullptr, OPERAND_DIRECTORY, false, "all logs of a fetched set, merged by time",
     "DIR is a set that fetch has copied, or a log directory; a directory that holds sets is listed,\n"
     "with each set's size and whether it is complete. TIME is [[YYYY-]MM-DD ]hh:mm[:ss[.fraction]] in\n"
     "the handset's local time, and --until includes all of what it names. The sources are kernel,\n"
     "main, events, radio, sa and packets.",
     run_view, NO_REQUEST},
    {"pull", "REMOTE [LOCAL]", 1, 2, nullptr, OPERAND_FILE, false, "copy a file from the handset",
     "LOCAL is the name of the copy or a directory, by default the current one. The copy appears once\n"
     "its size and checksum are right. A copy that was broken off goes on where it stopped when the\n"
     "same command is run again.",
     run_pull, NO_REQUEST},
    {"push", "LOCAL REMOTE", 2, 2, nullptr, OPERAND_FILE, false, "copy a file to the handset",
     "REMOTE is the name of the copy or a directory. The copy, with the mode of the file, appears once\n"
     "its size and checksum are right.",
     run_push, NO_REQUEST},
    {"kill", "", 0, 0, nullptr, OPERAND_OTHER, false, "end the agent",
     "The agent ends at once. The handset's init may start it again.", run_kill, NO_REQUEST},
    {"console", "", 0, 0, nullptr, OPERAND_OTHER, false, "sub-commands line by line, with history",
     "A line that begins with +, AT or SA+ is sent as it is. quit ends the console. On a terminal,\n"
     "Ctrl-C abandons the request under way and keeps the prompt.",
     run_console, NO_REQUEST},
    {"completion", "bash|zsh", 1, 1, "bash zsh", OPERAND_OTHER, false, "print a shell's completion script",
     "Source it: . <(sa-host completion bash). An installed sa-host brings both scripts.", run_completion,
     NO_REQUEST},
    {"help", "[SUB-COMMAND]", 0, 1, nullptr, OPERAND_SUB_COMMAND, false, "the summary, or one sub-command's page",
     nullptr, run_help, NO_REQUEST},
};

const option_row OPTION_ROWS[] = {
    {"--channel", 'c', nullptr, "PATH", nullptr, OPERAND_FILE, "command channel (/dev/ttyCMD0)",
     OPTION_TEXT, &all::channel, nullptr, nullptr},
    {"--listener", 'l', nullptr, "PATH", nullptr, OPERAND_FILE, "remote-shell listener (/dev/ttysa1)",
     OPTION_TEXT, &all::listener, nullptr, nullptr},
    {"--root", 'r', nullptr, "PATH", nullptr, OPERAND_DIRECTORY,
     "the handset's root directory as seen from here (/)",
     OPTION_TEXT, &all::root, nullptr, nullptr},
    {"--adb", 0, nullptr, nullptr, nullptr, OPERAND_OTHER, "reach the handset through adb, the only one there is",
     OPTION_FLAG, nullptr, nullptr, &all::is_adb},
    {"--serial", 0, nullptr, "SERIAL", nullptr, OPERAND_OTHER,
     "reach the handset with this serial number through adb",
     OPTION_TEXT, &all::serial, nullptr, nullptr},
    {"--tty", 0, nullptr, "DEVICE[,SPEED]", nullptr, OPERAND_FILE, "reach the command channel over a serial line",
     OPTION_TEXT, &all::tty, nullptr, nullptr},
    {"--timeout", 'T', nullptr, "SEC", nullptr, OPERAND_OTHER, "how long to wait (what the request usually needs)",
     OPTION_SECONDS, nullptr, &all::timeout_s, nullptr},
    {"--verbose", 'v', nullptr, nullptr, nullptr, OPERAND_OTHER,
     "show the lines that a request leaves in the handset's log",
     OPTION_FLAG, nullptr, nullptr, &all::is_verbose},
    {"--for", 0, " wait ", "STATE", "up down", OPERAND_OTHER, "up (what it usually waits for) or down",
     OPTION_TEXT, &all::wait_for, nullptr, nullptr},
    {"--follow", 'f', " log ", nullptr, nullptr, OPERAND_OTHER, "go on with what is written from now on",
     OPTION_FLAG, nullptr, nullptr, &all::is_follow},
    {"--lines", 'n', " log ", "N", nullptr, OPERAND_OTHER, "begin with the last N lines (all; with -f 10)",
     OPTION_COUNT, nullptr, &all::line_count, nullptr},
    {"--quiet", 'q', " query ", nullptr, nullptr, OPERAND_OTHER, "print nothing: exit status 0 runs, 4 does not",
     OPTION_FLAG, nullptr, nullptr, &all::is_quiet},
    {"--json", 'j', " query sets status ", nullptr, nullptr, OPERAND_OTHER, "print the result as JSON",
     OPTION_FLAG, nullptr, nullptr, &all::is_json},
    {"--raw", 0, " send ", nullptr, nullptr, OPERAND_OTHER, "show the bytes of both directions",
     OPTION_FLAG, nullptr, nullptr, &all::is_raw},
    {"--no-input", 'n', " shell ", nullptr, nullptr, OPERAND_OTHER, "the command reads nothing",
     OPTION_FLAG, nullptr, nullptr, &all::is_no_input},
    {"--terminal", 't', " shell ", nullptr, nullptr, OPERAND_OTHER, "give the command the terminal in raw mode",
     OPTION_FLAG, nullptr, nullptr, &all::is_terminal},
    {"--no-status", 0, " shell ", nullptr, nullptr, OPERAND_OTHER,
     "send the command as it is: the exit status is 0 whatever happens",
     OPTION_FLAG, nullptr, nullptr, &all::is_bare},
    {"--stderr", 'e', " shell ", nullptr, nullptr, OPERAND_OTHER,
     "the command's standard error comes out on standard error",
     OPTION_FLAG, nullptr, nullptr, &all::is_stderr_apart},
    {"--fetch", 0, " save-log ", "DIR", nullptr, OPERAND_DIRECTORY, "then copy the new set into DIR",
     OPTION_TEXT, &all::fetch_dir, nullptr, nullptr},
    {"--since", 0, " view ", "TIME", nullptr, OPERAND_OTHER, "leave out what is earlier",
     OPTION_TEXT, &all::since, nullptr, nullptr},
    {"--until", 0, " view ", "TIME", nullptr, OPERAND_OTHER, "leave out what is later",
     OPTION_TEXT, &all::until, nullptr, nullptr},
    {"--grep", 'g', " view ", "PATTERN", nullptr, OPERAND_OTHER,
     "only lines that match, as they are shown (POSIX extended)",
     OPTION_TEXT, &all::grep, nullptr, nullptr},
    {"--only", 'o', " view ", "SOURCE,...", nullptr, OPERAND_OTHER, "only these sources",
     OPTION_TEXT, &all::only, nullptr, nullptr},
    {"--html", 0, " view ", "FILE", nullptr, OPERAND_FILE, "write one page for a browser instead",
     OPTION_TEXT, &all::html, nullptr, nullptr},
    {"--echo", 'e', " console ", nullptr, nullptr, OPERAND_OTHER, "print each line before it is run",
     OPTION_FLAG, nullptr, nullptr, &all::is_echo},
    {"--stop", 's', " console ", nullptr, nullptr, OPERAND_OTHER, "end at the first line that fails",
     OPTION_FLAG, nullptr, nullptr, &all::is_stop},
};
// clang-format on

}  // namespace

const char *const KNOWN_SERVICES =
    "zr-elog zr-auto-test zr-qel-mla zr-qel-mla0 zr-qel-mla1 zr-qel-mla2 zr-qel-mla3 zr-qel-mla4 zr-qel-mla5";

const std::vector<command_row> &command_rows() {
    static const std::vector<command_row> rows(std::begin(COMMAND_ROWS), std::end(COMMAND_ROWS));
    return rows;
}

const std::vector<option_row> &option_rows() {
    static const std::vector<option_row> rows(std::begin(OPTION_ROWS), std::end(OPTION_ROWS));
    return rows;
}

const command_row *command_find(const std::string &word) {
    for (const command_row &row : command_rows()) {
        if (word == row.word) {
            return &row;
        }
    }
    return nullptr;
}

bool option_belongs(const option_row &row, const std::string &word) {
    return row.owners == nullptr || std::string(row.owners).find(" " + word + " ") != std::string::npos;
}

word_list split_words(const std::string &text) {
    word_list words;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find(' ', at), text.size());
        if (end > at) {
            words.push_back(text.substr(at, end - at));
        }
        at = end + 1;
    }
    return words;
}
