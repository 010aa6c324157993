// Command lines against the tables of sub-commands and options. Owns no state.

#include "command.h"

#include <cstdlib>

#include "command_table.h"
#include "help.h"
#include "link.h"
#include "message.h"

namespace {

enum read_end { READ_OPERANDS, READ_HELP, READ_VERSION, READ_REFUSED };

// A command line as far as it has been read.
struct reader {
    word_list words;
    size_t at = 0;
    const command_row *row = nullptr;  // null: before the sub-command
    host_options options;
    word_list operands;
};

std::string own_word(const reader &line) {
    return line.row != nullptr ? line.row->word : "";
}

// Whether `word` is this option: "--name", "--name=value", "-x" or "-xvalue". `*value` receives what is attached.
bool is_option(const option_row &row, const std::string &word, std::string *value, bool *has_value) {
    const std::string name = row.name;
    *has_value = false;
    if (word == name) {
        return true;
    }
    *has_value = true;
    if (word.compare(0, name.size() + 1, name + "=") == 0) {
        *value = word.substr(name.size() + 1);
        return true;
    }
    if (row.letter != 0 && word.size() >= 2 && word[0] == '-' && word[1] == row.letter) {
        *value = word.substr(2);
        *has_value = word.size() > 2;
        return true;
    }
    return false;
}

const option_row *find_option(const reader &line, std::string *value, bool *has_value) {
    for (const option_row &row : option_rows()) {
        if (option_belongs(row, own_word(line)) && is_option(row, line.words[line.at], value, has_value)) {
            return &row;
        }
    }
    return nullptr;
}

void say_no_option(const reader &line) {
    const std::string &word = line.words[line.at];
    word_list candidates = {"--help", "--version"};
    for (const option_row &row : option_rows()) {
        if (option_belongs(row, own_word(line))) {
            candidates.push_back(row.name);
        }
    }
    std::string nearest = help_nearest(word.substr(0, word.find('=')), candidates);
    std::string advice = nearest.empty() ? "" : " Did you mean " + nearest + "?";
    if (line.row == nullptr) {
        say("\"%s\" is not an option here.%s See sa-host --help.", word.c_str(), advice.c_str());
    } else {
        say("\"%s\" is not an option of %s.%s See sa-host help %s.", word.c_str(), line.row->word, advice.c_str(),
            line.row->word);
    }
}

bool read_number(const option_row &row, const std::string &text, int *number) {
    char *end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    bool is_time = row.kind == OPTION_SECONDS;
    if (text.empty() || *end != '\0' || value < (is_time ? 1 : 0) || value > (is_time ? 86400 : 1000000)) {
        say(is_time ? "\"%s\" is no time-out: give whole seconds from 1 to 86400."
                    : "\"%s\" is no count: give a number from 0 to 1000000.",
            text.c_str());
        return false;
    }
    *number = static_cast<int>(value);
    return true;
}

bool store_text(const option_row &row, const std::string &value, host_options *out) {
    if (value.empty()) {
        say("The option %s needs a value that is not empty.", row.name);
        return false;
    }
    if (row.choices != nullptr && (" " + std::string(row.choices) + " ").find(" " + value + " ") == std::string::npos) {
        say("\"%s\" is no value of %s: use one of %s.", value.c_str(), row.name, row.choices);
        return false;
    }
    out->*row.text = value;
    return true;
}

bool store_option(const option_row &row, const std::string &value, host_options *out) {
    switch (row.kind) {
        case OPTION_FLAG: out->*row.flag = true; return true;
        case OPTION_SECONDS:
        case OPTION_COUNT: return read_number(row, value, &(out->*row.number));
        case OPTION_TEXT: break;
    }
    return store_text(row, value, out);
}

bool read_option(reader *line) {
    std::string value;
    bool has_value = false;
    const option_row *row = find_option(*line, &value, &has_value);
    if (row == nullptr) {
        say_no_option(*line);
        return false;
    }
    std::string &word = line->words[line->at];
    if (row->kind == OPTION_FLAG && has_value && word[1] != '-') {
        word = "-" + value;  // single letters may share one dash
        return store_option(*row, "", &line->options);
    }
    ++line->at;
    if (row->kind == OPTION_FLAG && has_value) {
        say("The option %s takes no value.", row->name);
        return false;
    }
    if (row->kind != OPTION_FLAG && !has_value) {
        if (line->at == line->words.size()) {
            say("The option %s needs a value.", row->name);
            return false;
        }
        value = line->words[line->at++];
    }
    return store_option(*row, value, &line->options);
}

// Reads options, and operands among them where the sub-command allows that. What is left begins at line->at.
read_end read_words(reader *line) {
    while (line->at < line->words.size()) {
        const std::string &word = line->words[line->at];
        if (word == "--") {
            ++line->at;
            break;
        }
        if (word == "--help" || word == "-h") {
            return READ_HELP;
        }
        if (word == "--version" || word == "-V") {
            return READ_VERSION;
        }
        if (word.size() > 1 && word[0] == '-') {
            if (!read_option(line)) {
                return READ_REFUSED;
            }
            continue;
        }
        if (line->row == nullptr || line->row->is_command_line) {
            break;
        }
        line->operands.push_back(word);
        ++line->at;
    }
    line->operands.insert(line->operands.end(), line->words.begin() + static_cast<std::ptrdiff_t>(line->at),
                          line->words.end());
    return READ_OPERANDS;
}

int print_version() {
    print("sa-host " SA_HOST_VERSION "\n");
    return HOST_OK;
}

int say_no_command(const std::string &word) {
    word_list candidates;
    for (const command_row &row : command_rows()) {
        candidates.push_back(row.word);
    }
    std::string nearest = help_nearest(word, candidates);
    say("There is no sub-command \"%s\".%s See sa-host --help.", word.c_str(),
        nearest.empty() ? "" : (" Did you mean " + nearest + "?").c_str());
    return HOST_REFUSED;
}

bool is_count_right(const command_row &row, size_t count) {
    return count >= static_cast<size_t>(row.least) && (row.most < 0 || count <= static_cast<size_t>(row.most));
}

}  // namespace

int command_run(const host_options &options, const word_list &words) {
    reader line;
    line.words = words;
    line.at = 1;
    line.row = command_find(words[0]);
    line.options = options;
    if (line.row == nullptr) {
        return say_no_command(words[0]);
    }
    switch (read_words(&line)) {
        case READ_HELP: help_page(*line.row); return HOST_OK;
        case READ_VERSION: return print_version();
        case READ_REFUSED: return HOST_REFUSED;
        case READ_OPERANDS: break;
    }
    if (!is_count_right(*line.row, line.operands.size())) {
        say("Usage: sa-host %s%s%s. See sa-host help %s.", line.row->word, *line.row->usage != '\0' ? " " : "",
            line.row->usage, line.row->word);
        return HOST_REFUSED;
    }
    line.options.is_patient = line.options.timeout_s > 0;
    if (!link_choose(&line.options)) {
        return HOST_REFUSED;
    }
    return line.row->run(*line.row, line.options, line.operands);
}

int command_line(const word_list &words) {
    reader line;
    line.words = words;
    switch (read_words(&line)) {
        case READ_HELP: help_summary(); return HOST_OK;
        case READ_VERSION: return print_version();
        case READ_REFUSED: return HOST_REFUSED;
        case READ_OPERANDS: break;
    }
    if (line.operands.empty()) {
        say("Give a sub-command, for example: sa-host status. See sa-host --help.");
        return HOST_REFUSED;
    }
    return command_run(line.options, line.operands);
}
