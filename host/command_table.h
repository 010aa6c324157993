#pragma once
// The table of sub-commands and the table of options: what dispatch, help, completion and the manual's test read.

#include <string>
#include <vector>

#include "options.h"
#include "request.h"

typedef std::vector<std::string> word_list;

// What an operand or an option's value names, for completion.
enum operand_kind { OPERAND_OTHER, OPERAND_SERVICE, OPERAND_FILE, OPERAND_DIRECTORY, OPERAND_SUB_COMMAND };

struct command_row {
    const char *word;
    const char *usage;    // its operands, "" for none
    int least;            // number of operands
    int most;             // -1: any number
    const char *choices;  // words that the first operand is one of, null: any
    operand_kind operand;
    bool is_command_line;  // its operands are a command line of the handset: no options behind the first
    const char *help;      // one line
    const char *page;      // the rest of its page, null for none
    int (*run)(const command_row &row, const host_options &options, const word_list &operands);
    request_kind request;  // at_name null: it is no request of the agent
};

enum option_kind { OPTION_TEXT, OPTION_SECONDS, OPTION_COUNT, OPTION_FLAG };

struct option_row {
    const char *name;
    char letter;          // short form, 0 for none
    const char *owners;   // the sub-commands that have it, with a blank before and behind each; null: all
    const char *value;    // what its value is called, null for a flag
    const char *choices;  // words that the value is one of, null: any
    operand_kind operand;
    const char *help;  // one line
    option_kind kind;
    std::string host_options::*text;
    int host_options::*number;
    bool host_options::*flag;
};

// All rows. Requests of the agent come first.
const std::vector<command_row> &command_rows();
const std::vector<option_row> &option_rows();

// The row of a sub-command, or null.
const command_row *command_find(const std::string &word);

// Whether the sub-command `word` ("": none, before the sub-command) has the option.
bool option_belongs(const option_row &row, const std::string &word);

// Services that a handset of this platform usually has, for completion.
extern const char *const KNOWN_SERVICES;

// `text` cut at its blanks.
word_list split_words(const std::string &text);
