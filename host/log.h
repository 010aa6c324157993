#pragma once
// The sub-command `log`: the agent's diagnostic log.

#include "options.h"

// Prints the last options.line_count lines (-1: all) of the diagnostic log on standard output. With options.is_follow it
// then goes on with what the agent writes, over rotations, restarts of the agent and reboots of the handset, until a
// signal ends it. Result: a host_status, with failures said.
int log_show(const host_options &options);
