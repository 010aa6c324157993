#pragma once
// The sub-command `shell`: a remote shell or command bridged to the streams of this process.

#include <string>

#include "options.h"

// Runs `command` (empty: an interactive shell) on the handset. Result: its exit status, 0 where none is known, or
// HOST_SHELL with the sentence said. Ends the process by a signal that ended the conversation.
int shell_run(const host_options &options, const std::string &command);
