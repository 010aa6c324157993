#pragma once
// The sub-command `status`.

#include "options.h"

// Prints what the agent and the handset show through one remote command: process, switches, collectors, space,
// auto-start list, panic records; as JSON with options.is_json. Result: a host_status, with failures said.
int status_show(const host_options &options);
