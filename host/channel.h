#pragma once
// The command channel: requests out, answers in.

#include <string>
#include <vector>

#include "options.h"
#include "request.h"

// Sends the requests one after another in one turn on the channel and prints each result on standard output; stops at
// the first that is not answered OK. Result: the exit status, a host_status; failures have been said.
int channel_send(const host_options &options, const std::vector<request> &requests);

// Sends one request and takes its result line ("" where it has none) instead of printing it. Result as above.
int channel_ask(const host_options &options, const request &asked, std::string *result);
