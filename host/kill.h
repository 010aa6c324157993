#pragma once
// The sub-command `kill`: ends the agent through its listener.

#include "options.h"

// Asks the agent to end at once and waits until it has hung up. Result: a host_status, with failures said.
int kill_agent(const host_options &options);
