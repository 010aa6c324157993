#pragma once
// A remote command whose standard error does not share its connection.

#include <string>

#include "options.h"

// Runs `command` as shell_run does, with its standard error on this process's standard error. Result as of shell_run.
int shell_run_stderr_apart(const host_options &options, const std::string &command);
