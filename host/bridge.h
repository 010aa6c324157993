#pragma once
// The bridge between a started remote child and the streams of this process.

#include "options.h"
#include "remote.h"

// How a bridge passes on input and what it looks for in the output.
struct bridge_plan {
    int in_fd = -1;              // where input comes from; -1: there is none
    bool is_raw = false;         // the person's terminal is in raw mode and the child's prepared (link_prepare_typing)
    bool is_prompting = false;   // the child is a shell that prompts
    bool is_framed = false;      // input goes as base64 lines, see INPUT_FRAMED
    bool ends_with_eot = false;  // after the end of input the byte 4 (Ctrl-D) goes to the child
    bool has_mark = false;       // the command was wrapped: `mark` is looked for
    remote_mark mark;
};

// Why a bridge ended.
enum bridge_end {
    BRIDGE_OVER,      // the child ended; with a mark its status is in plan.mark
    BRIDGE_ESCAPED,   // the person typed the escape
    BRIDGE_SIGNAL,    // m_local_events.end_signal tells which
    BRIDGE_NO_READER  // standard output was closed by its reader
};

// Passes bytes both ways until one of the ends above. Signals must be taken (local_signals_take). Output goes to
// standard output. The caller restores the terminal.
bridge_end bridge_run(const host_options &options, link_terminal *child, bridge_plan *plan);
