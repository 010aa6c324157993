#pragma once
// The sub-command `fetch`: a saved log set from the handset's card into a directory of this machine.

#include <string>
#include <vector>

#include "options.h"

// Copies the set (empty: the newest) into dir/set. A copy that was broken off is continued; a complete one is left
// alone. Result: a host_status, with the outcome said.
int fetch_set(const host_options &options, const std::string &set, const std::string &dir);

// Saves the logs by the agent's own command, then fetches the set that this has made. Result as above.
int fetch_saved(const host_options &options, const std::string &dir);
