#pragma once
// Command lines: options, operands, dispatch to the sub-commands.

#include <string>
#include <vector>

#include "options.h"

// Runs the words of a whole command line, options before the sub-command included.
// Result: the exit status; failures have been said.
int command_line(const std::vector<std::string> &words);

// Runs one sub-command with its own options and operands. `options` are the choices made before it.
// Result as above.
int command_run(const host_options &options, const std::vector<std::string> &words);
