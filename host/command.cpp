// The sub-commands' table and options, shared by the command line and the console. Owns no state beyond the tables.

#include "command.h"

#include <cstdio>
#include <cstdlib>

#include "channel.h"
#include "console.h"
#include "fetch.h"
#include "kill.h"
#include "message.h"
#include "request.h"
#include "shell.h"

namespace {

typedef std::vector<std::string> word_list;

struct sub_command {
    const char *word;
    const char *usage;
    const char *help;
    int (*run)(const host_options &options, const word_list &operands);
};

int usage_of(const char *word, const char *usage) {
    say("Usage: sa-host %s %s", word, usage);
    return HOST_REFUSED;
}

int run_send(const host_options &options, const word_list &operands) {
    if (operands.empty()) {
        return usage_of("send", "[--raw] REQUEST...");
    }
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

int run_shell(const host_options &options, const word_list &operands) {
    std::string command;
    for (const std::string &word : operands) {
        command += (command.empty() ? "" : " ") + word;
    }
    return shell_run(options, command);
}

int run_fetch(const host_options &options, const word_list &operands) {
    if (operands.empty() || operands.size() > 2) {
        return usage_of("fetch", "[SET] DIR");
    }
    return fetch_set(options, operands.size() == 2 ? operands[0] : "", operands.back());
}

int run_kill(const host_options &options, const word_list &operands) {
    return operands.empty() ? kill_agent(options) : usage_of("kill", "");
}

int run_console(const host_options &options, const word_list &operands) {
    return operands.empty() ? console_run(options) : usage_of("console", "");
}

int run_help(const host_options &, const word_list &) {
    command_help();
    return HOST_OK;
}

// What is no request of the agent by a plain name; those have a table of their own.
const sub_command m_sub_commands[] = {
    {"send", "[--raw] REQUEST...", "send requests as they are (prefix and end added)", run_send},
    {"shell", "[-n] [-t] [--no-status] [COMMAND]", "remote shell, or one command", run_shell},
    {"fetch", "[SET] DIR", "copy a saved log set (the newest) into DIR", run_fetch},
    {"kill", "", "end the agent", run_kill},
    {"console", "", "commands line by line, with history", run_console},
    {"help", "", "this text", run_help},
};

int run_request(const host_options &options, const request_kind &kind, const word_list &operands) {
    request made;
    std::string why;
    if (!request_build(kind, operands, &made, &why)) {
        say("%s", why.c_str());
        return HOST_REFUSED;
    }
    if (!options.fetch_dir.empty()) {
        return fetch_saved(options, options.fetch_dir);
    }
    return channel_send(options, {made});
}

// ---- Options

enum option_kind { OPTION_TEXT, OPTION_SECONDS, OPTION_FLAG };

struct option_row {
    const char *name;
    char letter;        // short form, 0 for none
    const char *owner;  // the sub-command that has it, null: all
    option_kind kind;
    std::string host_options::*text;
    int host_options::*number;
    bool host_options::*flag;
};

typedef host_options all;

// clang-format off
const option_row m_option_rows[] = {
    {"--root",      'r', nullptr,    OPTION_TEXT,    &all::root,      nullptr,         nullptr},
    {"--channel",   'c', nullptr,    OPTION_TEXT,    &all::channel,   nullptr,         nullptr},
    {"--listener",  'l', nullptr,    OPTION_TEXT,    &all::listener,  nullptr,         nullptr},
    {"--timeout",   'T', nullptr,    OPTION_SECONDS, nullptr,         &all::timeout_s, nullptr},
    {"--raw",       0,   "send",     OPTION_FLAG,    nullptr,         nullptr,         &all::is_raw},
    {"--no-status", 0,   "shell",    OPTION_FLAG,    nullptr,         nullptr,         &all::is_bare},
    {"--no-input",  'n', "shell",    OPTION_FLAG,    nullptr,         nullptr,         &all::is_no_input},
    {"--terminal",  't', "shell",    OPTION_FLAG,    nullptr,         nullptr,         &all::is_terminal},
    {"--fetch",     0,   "save-log", OPTION_TEXT,    &all::fetch_dir, nullptr,         nullptr},
};
// clang-format on

// Finds the row of an option word, "--name", "--name=value", "-x" or "-xvalue". `*value` receives what is attached.
const option_row *find_option(const std::string &word, std::string *value, bool *has_value) {
    for (const option_row &row : m_option_rows) {
        std::string name = row.name;
        *has_value = false;
        if (word == name) {
            return &row;
        }
        *has_value = true;
        if (word.compare(0, name.size() + 1, name + "=") == 0) {
            *value = word.substr(name.size() + 1);
            return &row;
        }
        if (row.letter != 0 && word.size() >= 2 && word[0] == '-' && word[1] == row.letter) {
            *value = word.substr(2);
            *has_value = word.size() > 2;
            return &row;
        }
    }
    return nullptr;
}

bool read_seconds(const std::string &text, int *seconds) {
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < 1 || value > 86400) {
        say("\"%s\" is no time-out: give whole seconds from 1 to 86400.", text.c_str());
        return false;
    }
    *seconds = static_cast<int>(value);
    return true;
}

bool store_option(const option_row &row, const std::string &value, host_options *out) {
    switch (row.kind) {
        case OPTION_FLAG: out->*row.flag = true; return true;
        case OPTION_SECONDS: return read_seconds(value, &(out->*row.number));
        default: break;
    }
    if (value.empty()) {
        say("The option %s needs a value that is not empty.", row.name);
        return false;
    }
    out->*row.text = value;
    return true;
}

bool read_option(word_list &words, const char *command, size_t *at, host_options *out) {
    const std::string word = words[*at];
    std::string value;
    bool has_value = false;
    const option_row *row = find_option(word, &value, &has_value);
    if (row == nullptr || (row->owner != nullptr && std::string(row->owner) != command)) {
        say("\"%s\" is not an option%s%s. See sa-host --help.", word.c_str(), *command != '\0' ? " of " : " here",
            command);
        return false;
    }
    if (row->kind == OPTION_FLAG && has_value && word[1] != '-') {
        words[*at] = "-" + value;  // single letters may share one dash
        return store_option(*row, "", out);
    }
    ++*at;
    if (row->kind == OPTION_FLAG && has_value) {
        say("The option %s takes no value.", row->name);
        return false;
    }
    if (row->kind != OPTION_FLAG && !has_value) {
        if (*at == words.size()) {
            say("The option %s needs a value.", row->name);
            return false;
        }
        value = words[(*at)++];
    }
    return store_option(*row, value, out);
}

bool read_options(word_list words, const char *command, size_t *at, host_options *out, bool *is_help) {
    while (*at < words.size() && words[*at].size() > 1 && words[*at][0] == '-') {
        if (words[*at] == "--") {
            ++*at;
            return true;
        }
        if (words[*at] == "--help" || words[*at] == "-h") {
            *is_help = true;
            return true;
        }
        if (!read_option(words, command, at, out)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool options_read(const word_list &words, size_t *at, host_options *out, bool *is_help) {
    return read_options(words, "", at, out, is_help);
}

int command_run(const host_options &options, const word_list &words) {
    const std::string &word = words[0];
    host_options own = options;
    size_t at = 1;
    bool is_help = false;
    const request_kind *kind = request_find(word);
    const sub_command *found = nullptr;
    for (const sub_command &row : m_sub_commands) {
        if (word == row.word) {
            found = &row;
        }
    }
    if (kind == nullptr && found == nullptr) {
        say("There is no sub-command \"%s\". See sa-host --help.", word.c_str());
        return HOST_REFUSED;
    }
    if (!read_options(words, word.c_str(), &at, &own, &is_help)) {
        return HOST_REFUSED;
    }
    if (is_help) {
        command_help();
        return HOST_OK;
    }
    word_list operands(words.begin() + static_cast<std::ptrdiff_t>(at), words.end());
    return found != nullptr ? found->run(own, operands) : run_request(own, *kind, operands);
}

std::vector<std::string> command_words() {
    std::vector<std::string> words;
    for (const request_kind *kind = m_request_kinds; kind->word != nullptr; ++kind) {
        words.push_back(kind->word);
    }
    for (const sub_command &row : m_sub_commands) {
        words.push_back(row.word);
    }
    return words;
}

void command_help() {
    puts(
        "Usage: sa-host [OPTION]... SUB-COMMAND [OPTION]... [OPERAND]...\n"
        "Talks to the system agent of a handset over its command channel and its remote shell.\n\n"
        "Requests of the agent:");
    for (const request_kind *kind = m_request_kinds; kind->word != nullptr; ++kind) {
        printf("  %-46s %s\n", text_of("%s %s", kind->word, kind->usage).c_str(), kind->help);
    }
    puts(
        "  save-log --fetch DIR                           the same, then fetch the new set into DIR\n\n"
        "Others:");
    for (const sub_command &row : m_sub_commands) {
        printf("  %-46s %s\n", text_of("%s %s", row.word, row.usage).c_str(), row.help);
    }
    host_options usual;
    printf(
        "\nOptions:\n"
        "  -c, --channel PATH    command channel (%s)\n"
        "  -l, --listener PATH   remote-shell listener (%s)\n"
        "  -r, --root PATH       the handset's root directory as seen from here, for example /proc/PID/root (%s)\n"
        "  -T, --timeout SEC     how long to wait for an answer (what the request usually needs)\n"
        "  -h, --help            this text\n\n"
        "Exit status: 0 answered OK; 1 answered ERROR, or a step failed; 2 no channel, busy or no answer in time;\n"
        "3 not sent: wrong usage or a request that cannot be written. shell: the remote command's own; 255 when\n"
        "sa-host itself failed. In a remote shell on a terminal, ~. at the beginning of a line leaves it.\n",
        usual.channel.c_str(), usual.listener.c_str(), usual.root.c_str());
}
