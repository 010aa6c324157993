#pragma once
// The sub-command `wait`.

#include "options.h"

// Waits until the agent answers on its command channel and publishes its listener (options.wait_for "up"), or until it
// has published no command channel for a second ("down"); without a time-out for as long as it takes.
// Result: a host_status, with failures said.
int wait_agent(const host_options &options);
