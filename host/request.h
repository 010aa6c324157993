#pragma once
// The requests of the command channel: plain words to bytes, and what each of them needs.

#include <string>
#include <vector>

struct request {
    std::string bytes;  // what goes to the agent, carriage return included
    std::string title;  // what a person calls it, for progress and failures
    int timeout_s;      // how long its answer may take
};

// How the operands of a sub-command become the argument on the wire.
enum request_shape {
    SHAPE_BARE,     // none
    SHAPE_READING,  // none; the request reads a value
    SHAPE_NAME,     // a service name
    SHAPE_LIST,     // an action and a service name
    SHAPE_COMMAND,  // a command line
    SHAPE_SWITCH,   // on, off or query
    SHAPE_SETTING,  // on or off
};

// What the table of sub-commands says about a request of the agent.
struct request_kind {
    const char *at_name;  // name on the wire, with its plus sign
    request_shape shape;
    int timeout_s;  // how long its answer may take: beyond what the agent itself waits for
};

// Builds the request of a sub-command from its operands, whose number has been checked.
// Result: true, or false with the reason as a sentence in `why`.
bool request_build(const std::string &word, const request_kind &kind, const std::vector<std::string> &operands,
                   request *out, std::string *why);

// Builds a request from its text on the wire: adds the prefix where the text lacks it, and the carriage return.
// Result as above.
bool request_from_text(const std::string &text, request *out, std::string *why);
