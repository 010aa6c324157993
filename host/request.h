#pragma once
// The requests of the command channel: plain words to bytes, and what each of them needs.

#include <string>
#include <vector>

struct request {
    std::string bytes;  // what goes to the agent, carriage return included
    std::string title;  // what a person calls it, for progress and failures
    int timeout_s;      // how long its answer may take
};

// One sub-command that stands for a request of the agent.
struct request_kind {
    const char *word;     // the sub-command
    const char *usage;    // its operands
    const char *help;     // one line
    const char *at_name;  // name on the wire, with its plus sign
    int shape;            // how the operands become an argument; private to request.cpp
    int timeout_s;
};

// The ten, ended by a row whose word is null.
extern const request_kind m_request_kinds[];

// The row of a sub-command, or null.
const request_kind *request_find(const std::string &word);

// Builds the request of a sub-command from its operands. Result: true, or false with the reason as a sentence in `why`.
bool request_build(const request_kind &kind, const std::vector<std::string> &operands, request *out, std::string *why);

// Builds a request from its text on the wire: adds the prefix where the text lacks it, and the carriage return.
// Result as above.
bool request_from_text(const std::string &text, request *out, std::string *why);
