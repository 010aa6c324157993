#pragma once
// The sub-commands, as the command line and the console both run them.

#include <string>
#include <vector>

#include "options.h"

// Runs one sub-command with its own options and operands. `options` are the choices made before it.
// Result: the exit status; failures have been said.
int command_run(const host_options &options, const std::vector<std::string> &words);

// Reads the options at `*at` of the words into `out` and moves `*at` behind them. Result: true, or false with the
// sentence said. A word that is no option ends them, and so does "--".
bool options_read(const std::vector<std::string> &words, size_t *at, host_options *out, bool *is_help);

// Every sub-command's word, for completion.
std::vector<std::string> command_words();

// The help text: usage, sub-commands, options, exit statuses.
void command_help();
