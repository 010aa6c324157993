#pragma once
// The sub-command `console`: sub-commands line by line, with history and completion on a terminal.

#include "options.h"

// Reads and runs lines until end of file or `quit`. Result: the status of the last line that failed, HOST_OK without
// one.
int console_run(const host_options &options);
