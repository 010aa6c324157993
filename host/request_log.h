#pragma once
// What a request has left in the handset's log.

#include "options.h"

// Prints the lines of the latest request on standard error: those that the agent's command thread wrote into the platform
// log, from the receipt of the request to its result. To be called in the turn of the request.
void request_log_show(const host_options &options);
