// Help and completion, generated from the tables of sub-commands and options. Owns no state.

#include "help.h"

#include <algorithm>

#include "message.h"

namespace {

constexpr int NAME_WIDTH = 34;

std::string option_names(const option_row &row) {
    std::string names = row.letter != 0 ? text_of("-%c, ", row.letter) : std::string("    ");
    return names + row.name + (row.value != nullptr ? std::string(" ") + row.value : "");
}

void print_row(const std::string &name, const char *help) {
    print("  %-*s %s\n", NAME_WIDTH, name.c_str(), help);
}

// The options of one sub-command alone ("": those that all have).
void print_options(const std::string &word) {
    for (const option_row &row : option_rows()) {
        if (word.empty() ? row.owners == nullptr : row.owners != nullptr && option_belongs(row, word)) {
            print_row(option_names(row), row.help);
        }
    }
}

bool has_own_options(const std::string &word) {
    for (const option_row &row : option_rows()) {
        if (row.owners != nullptr && option_belongs(row, word)) {
            return true;
        }
    }
    return false;
}

void print_commands(bool is_request) {
    for (const command_row &row : command_rows()) {
        if ((row.request.at_name != nullptr) == is_request) {
            print_row(text_of("%s %s", row.word, row.usage), row.help);
        }
    }
}

// Edits of one character (insert, delete, replace, swap two neighbours) between two words.
size_t edits(const std::string &a, const std::string &b) {
    std::vector<std::vector<size_t>> table(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                table[i][j] = i + j;
                continue;
            }
            table[i][j] = std::min(
                {table[i - 1][j] + 1, table[i][j - 1] + 1, table[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
            }
        }
    }
    return table[a.size()][b.size()];
}

// ---- Completion. Both scripts find the sub-command as the first word that is neither an option nor its value, offer
// options behind a dash, and else what the sub-command's row says of its operands.

std::string option_words(const std::string &word) {
    std::string words = "--help";
    for (const option_row &row : option_rows()) {
        if (option_belongs(row, word)) {
            words += std::string(" ") + row.name;
        }
    }
    return words;
}

std::string command_words() {
    std::string words;
    for (const command_row &row : command_rows()) {
        words += (words.empty() ? "" : " ") + std::string(row.word);
    }
    return words;
}

// An option as the scripts match it behind its sub-command: "log:--lines|log:-n", "*:--root|*:-r".
std::string option_pattern(const option_row &row) {
    std::string pattern;
    for (const std::string &owner : split_words(row.owners != nullptr ? row.owners : "*")) {
        pattern += (pattern.empty() ? "" : "|") + owner + ":" + row.name;
        pattern += row.letter != 0 ? text_of("|%s:-%c", owner.c_str(), row.letter) : std::string();
    }
    return pattern;
}

// The options that take a value and may stand before the sub-command.
std::string common_pattern() {
    std::string pattern;
    for (const option_row &row : option_rows()) {
        if (row.value != nullptr && row.owners == nullptr) {
            pattern += (pattern.empty() ? "" : "|") + std::string(row.name);
            pattern += row.letter != 0 ? text_of("|-%c", row.letter) : std::string();
        }
    }
    return pattern;
}

// What a script does to offer words, files or directories.
struct offers {
    const char *before_words;
    const char *behind_words;
    const char *files;
    const char *directories;
};

std::string offer_words(const offers &how, const std::string &words) {
    return how.before_words + words + how.behind_words;
}

std::string offer(const offers &how, operand_kind operand) {
    switch (operand) {
        case OPERAND_SERVICE: return offer_words(how, KNOWN_SERVICES);
        case OPERAND_SUB_COMMAND: return offer_words(how, command_words());
        case OPERAND_FILE: return how.files;
        case OPERAND_DIRECTORY: return how.directories;
        case OPERAND_OTHER: break;
    }
    return ":";
}

// The body that both shells share, in words that both understand.
void print_body(const offers &how) {
    print("    case $sub:$prev in\n");
    for (const option_row &row : option_rows()) {
        if (row.value != nullptr) {
            std::string values = row.choices != nullptr ? offer_words(how, row.choices) : offer(how, row.operand);
            print("        %s) %s; return ;;\n", option_pattern(row).c_str(), values.c_str());
        }
    }
    print("    esac\n    case $sub:$cur in\n        :-*) %s ;;\n        :*) %s ;;\n",
          offer_words(how, option_words("") + " --version").c_str(), offer_words(how, command_words()).c_str());
    for (const command_row &row : command_rows()) {
        print("        %s:-*) %s ;;\n", row.word, offer_words(how, option_words(row.word)).c_str());
        std::string rest = offer(how, row.operand);
        if (row.choices != nullptr && row.operand == OPERAND_OTHER) {
            rest = offer_words(how, row.choices);
        } else if (row.choices != nullptr) {
            rest = text_of("if [[ $prev == %s ]]; then %s; else %s; fi", row.word,
                           offer_words(how, row.choices).c_str(), rest.c_str());
        }
        print("        %s:*) %s ;;\n", row.word, rest.c_str());
    }
    print("    esac\n");
}

void print_bash() {
    print(
        "# Completion of sa-host for bash, generated by `sa-host completion bash`.\n"
        "_sa_host() {\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} sub= at word skip=\n"
        "    COMPREPLY=()\n"
        "    for ((at = 1; at < COMP_CWORD; at++)); do\n"
        "        word=${COMP_WORDS[at]}\n"
        "        if [[ -n $skip ]]; then skip=; continue; fi\n"
        "        case $word in\n            %s) skip=1 ;;\n            -*) ;;\n"
        "            *) sub=$word; break ;;\n        esac\n"
        "    done\n",
        common_pattern().c_str());
    print_body({"COMPREPLY=($(compgen -W '", "' -- \"$cur\"))", "COMPREPLY=($(compgen -f -- \"$cur\"))",
                "COMPREPLY=($(compgen -d -- \"$cur\"))"});
    print("}\ncomplete -o filenames -F _sa_host sa-host\n");
}

void print_zsh() {
    print(
        "#compdef sa-host\n"
        "# Completion of sa-host for zsh, generated by `sa-host completion zsh`.\n"
        "_sa_host() {\n"
        "    local cur=${words[CURRENT]} prev=${words[CURRENT-1]} sub= at word skip=\n"
        "    for ((at = 2; at < CURRENT; at++)); do\n"
        "        word=${words[at]}\n"
        "        if [[ -n $skip ]]; then skip=; continue; fi\n"
        "        case $word in\n            %s) skip=1 ;;\n            -*) ;;\n"
        "            *) sub=$word; break ;;\n        esac\n"
        "    done\n",
        common_pattern().c_str());
    print_body({"compadd -- ", "", "_files", "_files -/"});
    print("}\nif [[ $funcstack[1] == _sa-host ]]; then _sa_host; else compdef _sa_host sa-host; fi\n");
}

}  // namespace

void help_summary() {
    print(
        "Usage: sa-host [OPTION]... SUB-COMMAND [OPTION]... [OPERAND]...\n"
        "Talks to the system agent of a handset over its command channel and its remote shell.\n\n"
        "Requests of the agent:\n");
    print_commands(true);
    print("\nOthers:\n");
    print_commands(false);
    print("\nOptions of all sub-commands:\n");
    print_options("");
    print_row("-h, --help", "this text, or the page of the sub-command before it");
    print_row("-V, --version", "the version");
    print(
        "\nExit status: 0 answered OK, or done; 1 answered ERROR, or a step failed; 2 no channel, busy or no answer\n"
        "in time; 3 not sent: wrong usage, or a request that cannot be written; 4 query -q: the service does not\n"
        "run. shell: the remote command's own; 255 when sa-host itself failed.\n");
}

void help_page(const command_row &row) {
    print("Usage: sa-host %s%s%s%s\n", row.word, has_own_options(row.word) ? " [OPTION]..." : "",
          *row.usage != '\0' ? " " : "", row.usage);
    std::string help = row.help;
    help[0] = static_cast<char>(help[0] - 'a' + 'A');
    print("%s.\n", help.c_str());
    if (row.page != nullptr) {
        print("\n%s\n", row.page);
    }
    if (has_own_options(row.word)) {
        print("\nOptions:\n");
        print_options(row.word);
    }
    print("\nsa-host --help lists the options that all sub-commands have, and the exit statuses.\n");
}

int help_completion(const std::string &shell) {
    if (shell == "bash") {
        print_bash();
    } else if (shell == "zsh") {
        print_zsh();
    } else {
        say("There is no completion for \"%s\": use bash or zsh.", shell.c_str());
        return HOST_REFUSED;
    }
    return HOST_OK;
}

std::string help_nearest(const std::string &word, const word_list &candidates) {
    std::string nearest;
    size_t least = std::max<size_t>(word.size() / 3, 1) + 1;
    for (const std::string &candidate : candidates) {
        bool is_beginning = word.size() > 1 && candidate.compare(0, word.size(), word) == 0;
        size_t count = is_beginning ? 1 : edits(word, candidate);
        if (count < least) {
            least = count;
            nearest = candidate;
        }
    }
    return nearest;
}
