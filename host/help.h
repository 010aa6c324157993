#pragma once
// Texts made from the tables of sub-commands and options: help and completion scripts.

#include "command_table.h"

// Prints the summary: sub-commands, options that all have, exit statuses.
void help_summary();

// Prints the page of one sub-command.
void help_page(const command_row &row);

// Prints a completion script for the shell "bash" or "zsh". Result: a host_status, with failures said.
int help_completion(const std::string &shell);

// The candidate that `word` most likely stands for, or "".
std::string help_nearest(const std::string &word, const word_list &candidates);
