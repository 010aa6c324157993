#pragma once
// The sub-command `view`: reads a log set that `fetch` has copied, or a log directory.

#include <string>

// What was asked for; empty for everything, as text.
struct view_request {
    std::string since;
    std::string until;
    std::string grep;  // a POSIX extended regular expression
    std::string only;  // names of sources with commas between them
    std::string html;  // file to write the page to
};

// Shows the set in the directory `path`. A directory that holds sets is listed instead. Result: a host_status, with
// failures said.
int view_set(const std::string &path, const view_request &request);
