#pragma once
// The sub-commands `pull` and `push`: one file from or to the handset.

#include <string>

#include "options.h"

// Copies the handset's file to `local`, a name or an existing directory. A copy that was broken off is continued.
// Result: a host_status, with the outcome said.
int file_pull(const host_options &options, const std::string &path, const std::string &local);

// Copies a local file to the handset's `path`, a name or an existing directory there. Result as above.
int file_push(const host_options &options, const std::string &local, const std::string &path);
