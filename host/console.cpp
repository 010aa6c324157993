// The console: lines into words, words into sub-commands. Owns the history and what completion knows of the handset.

#include "console.h"

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "command.h"
#include "command_table.h"
#include "message.h"
#include "remote.h"

#ifdef SA_HOST_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace {

// Takes a line apart as a shell would: blanks between words, single and double quotes, a backslash before one
// character. Result: true, or false with the sentence said.
bool split_line(const std::string &line, std::vector<std::string> *words) {
    std::string word;
    bool has_word = false;
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        char byte = line[i];
        if (quote != 0) {
            if (byte == quote) {
                quote = 0;
            } else {
                word += byte;
            }
        } else if (byte == '\'' || byte == '"') {
            quote = byte;
            has_word = true;
        } else if (byte == ' ' || byte == '\t') {
            if (has_word) {
                words->push_back(word);
            }
            word.clear();
            has_word = false;
        } else {
            word += byte == '\\' && i + 1 < line.size() ? line[++i] : byte;
            has_word = true;
        }
    }
    if (has_word) {
        words->push_back(word);
    }
    if (quote != 0) {
        say("The quote %c is not closed.", quote);
    }
    return quote == 0;
}

// A line that begins like a request on the wire is one, quotes and all; it reads as with `send`.
bool is_wire_text(const std::string &line) {
    return line[0] == '+' || line.compare(0, 2, "AT") == 0 || line.compare(0, 3, "SA+") == 0;
}

// Takes a line apart. Result: whether there is something to run.
bool read_line(const std::string &text, std::vector<std::string> *words, int *status) {
    size_t from = text.find_first_not_of(" \t");
    if (from == std::string::npos || text[from] == '#') {
        return false;
    }
    std::string line = text.substr(from);
    if (is_wire_text(line)) {
        *words = {"send", "--", line};
        return true;
    }
    if (!split_line(line, words)) {
        *status = HOST_REFUSED;
        return false;
    }
    if ((*words)[0] == "console") {
        say("This is the console already.");
        return false;
    }
    return true;
}

bool is_end(const std::vector<std::string> &words) {
    return words[0] == "quit" || words[0] == "exit";
}

int run_script(const host_options &options) {
    char *line = nullptr;
    size_t size = 0;
    int status = HOST_OK;
    ssize_t len;
    while ((len = getline(&line, &size, stdin)) > 0) {
        std::string text(line, static_cast<size_t>(len));
        if (text.back() == '\n') {
            text.pop_back();
        }
        if (options.is_echo) {
            print("%s\n", text.c_str());
        }
        std::vector<std::string> words;
        int result = HOST_OK;
        if (read_line(text, &words, &result)) {
            if (is_end(words)) {
                break;
            }
            result = command_run(options, words);
        }
        status = result != HOST_OK ? result : status;
        if (options.is_stop && status != HOST_OK) {
            break;
        }
    }
    free(line);
    return status;
}

#ifdef SA_HOST_READLINE

constexpr int ASK_TIMEOUT_S = 3;

const host_options *m_options = nullptr;  // of the running console; readline's callbacks carry no argument
std::vector<std::string> m_services;      // names that completion offers, filled when it is first asked
std::vector<std::string> m_candidates;    // of the completion in progress
size_t m_next_candidate = 0;
volatile sig_atomic_t m_is_cancelled = 0;  // SIGINT came while a line was being edited

// The names that init knows, from the properties that it keeps for each service.
void ask_services() {
    m_services = split_words(KNOWN_SERVICES);
    host_options bounded = *m_options;
    bounded.timeout_s = ASK_TIMEOUT_S;
    std::string out;
    remote_output(bounded, "getprop", ASK_TIMEOUT_S, nullptr, &out);
    static const char lead[] = "[init.svc.";
    for (size_t at = 0; (at = out.find(lead, at)) != std::string::npos;) {
        at += sizeof(lead) - 1;
        std::string name = out.substr(at, out.find(']', at) - at);
        bool is_known = false;
        for (const std::string &known : m_services) {
            is_known = is_known || known == name;
        }
        if (!is_known) {
            m_services.push_back(name);
        }
    }
}

char *next_candidate(const char *text, int state) {
    if (state == 0) {
        m_next_candidate = 0;
    }
    while (m_next_candidate < m_candidates.size()) {
        const std::string &word = m_candidates[m_next_candidate++];
        if (word.compare(0, strlen(text), text) == 0) {
            return strdup(word.c_str());
        }
    }
    return nullptr;
}

void choose_services() {
    if (m_services.empty()) {
        ask_services();
    }
    m_candidates = m_services;
}

// What may stand behind these words. Nothing found means names of files.
void choose_candidates(const std::vector<std::string> &before) {
    m_candidates.clear();
    const command_row *row = before.empty() ? nullptr : command_find(before[0]);
    if (row == nullptr || row->operand == OPERAND_SUB_COMMAND) {
        for (const command_row &other : command_rows()) {
            m_candidates.push_back(other.word);
        }
        m_candidates.push_back("quit");
    } else if (row->choices != nullptr && before.size() == 1) {
        m_candidates = split_words(row->choices);
    } else if (row->operand == OPERAND_SERVICE) {
        choose_services();
    }
}

char **complete(const char *text, int start, int) {
    std::vector<std::string> before;
    split_line(std::string(rl_line_buffer, static_cast<size_t>(start)), &before);
    choose_candidates(before);
    rl_attempted_completion_over = m_candidates.empty() ? 0 : 1;  // else file names, for fetch
    return m_candidates.empty() ? nullptr : rl_completion_matches(text, next_candidate);
}

// Ctrl-C at the prompt gives a fresh line.
int cancel_line() {
    if (m_is_cancelled != 0) {
        m_is_cancelled = 0;
        rl_replace_line("", 0);
        rl_crlf();
        rl_on_new_line();
        rl_redisplay();
    }
    return 0;
}

void note_cancel(int) {
    m_is_cancelled = 1;
}

char *read_terminal_line() {
    struct sigaction ours = {};
    struct sigaction former = {};
    ours.sa_handler = note_cancel;
    sigaction(SIGINT, &ours, &former);
    char *line = readline("sa> ");
    sigaction(SIGINT, &former, nullptr);
    return line;
}

// Runs a sub-command in a process of its own, so that Ctrl-C ends it and not the console.
int run_aside(const host_options &options, const std::vector<std::string> &words) {
    struct sigaction ignore = {};
    struct sigaction former = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &former);  // before the fork: Ctrl-C may come at any time
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGINT, SIG_DFL);
        int status = command_run(options, words);
        _exit(print_finish(status));
    }
    int raw = 0;
    while (pid > 0 && waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
    }
    sigaction(SIGINT, &former, nullptr);
    if (pid < 0) {
        say("No process can be started for the line: %s.", strerror(errno));
        return HOST_ERROR;
    }
    if (WIFEXITED(raw)) {
        return WEXITSTATUS(raw);
    }
    if (WTERMSIG(raw) == SIGINT) {
        say("Abandoned. The agent still carries out a request that it has begun.");
    } else {
        say("The line ended by the signal %d.", WTERMSIG(raw));
    }
    return 128 + WTERMSIG(raw);
}

void keep_history(const std::string &path, const char *line) {
    if (*line != '\0') {
        add_history(line);
    }
    if (!path.empty()) {
        write_history(path.c_str());  // now, since a signal may end the console
    }
}

std::string history_path() {
    const char *home = getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.sa-host_history" : std::string();
}

int run_terminal(const host_options &options) {
    std::string history = history_path();
    m_options = &options;
    m_services.clear();
    rl_readline_name = "sa-host";
    rl_attempted_completion_function = complete;
    rl_signal_event_hook = cancel_line;
    rl_event_hook = cancel_line;  // some times a second: a signal that comes between two reads has no event of its own
    using_history();
    stifle_history(1000);
    if (!history.empty()) {
        read_history(history.c_str());
    }
    int status = HOST_OK;
    for (bool is_open = true; is_open && !(options.is_stop && status != HOST_OK);) {
        char *line = read_terminal_line();
        if (line == nullptr) {
            print("\n");
            break;
        }
        keep_history(history, line);
        std::vector<std::string> words;
        int result = HOST_OK;
        if (read_line(line, &words, &result)) {
            is_open = !is_end(words);
            result = is_open ? run_aside(options, words) : HOST_OK;
        }
        status = result != HOST_OK ? result : status;
        free(line);
    }
    m_options = nullptr;
    return status;
}

#else

int run_terminal(const host_options &) {
    say("This sa-host was built without readline, so it has no console on a terminal: install the readline headers and "
        "build again, or give the lines in a pipe.");
    return HOST_ERROR;
}

#endif

}  // namespace

int console_run(const host_options &options) {
    return isatty(STDIN_FILENO) != 0 ? run_terminal(options) : run_script(options);
}
