#pragma once
// The way to one handset. Everything else in host/ reaches the handset through these functions and never asks which
// kind of link it is.

#include <cstdint>
#include <string>

#include "options.h"

// What the agent publishes under a fixed name.
enum link_name { LINK_CHANNEL, LINK_LISTENER };

// One client's exclusive use of a published name, from link_begin to link_end.
struct link_turn {
    int fd = -1;    // non-blocking stream of bytes, close-on-exec
    int lock = -1;  // lock file of a kind of link whose stream cannot be locked, else -1
};

// A terminal that the agent has announced, opened by this client.
struct link_terminal {
    int fd = -1;       // raw, non-blocking, close-on-exec; owned by whoever opened it
    std::string path;  // its device path on the handset
    std::string life;  // changes when the path is given to another terminal; empty where the kind of link cannot tell
};

// How the foreground program of a terminal reads what is typed. All false: each byte goes to it as it is.
struct link_reading {
    bool is_by_lines = false;      // it is given whole lines
    bool is_echoed = false;        // the person is to see what is typed
    bool has_signal_keys = false;  // Ctrl-C, Ctrl-\ and Ctrl-Z are signals
    bool is_cr_newline = false;    // Enter is a newline
};

// Completes the choice of a link from the options: SA_HOST_LINK where none is given, ANDROID_SERIAL where adb is.
// Result: true, or false with the sentence said (two kinds at once, or a text that names none).
bool link_choose(host_options *options);

// Tells whether the way to the handset itself is lost, to be asked when a stream has ended unasked.
// Result: a whole sentence, or "" when the handset is still reached.
std::string link_loss(const host_options &options);

// Takes a turn on a published name: exclusive among all sa-host processes of this machine, raw, and never used by an
// earlier client, so that no stray answer can be read and no request is lost in an endpoint that is being replaced.
// Waits a second for a missing endpoint (with options.is_patient until the deadline) and until `deadline_ms` (now_ms
// clock) for a busy one.
// Result: true, and link_end is due; or false with the reason said.
bool link_begin(const host_options &options, link_name name, int64_t deadline_ms, link_turn *turn);

// Ends a turn. Does nothing when there is none.
void link_end(link_turn *turn);

// Tells one life of a published terminal from the next. Result: a text that changes whenever the agent publishes the name
// anew, also when the terminal gets the number of an earlier one; empty when the name leads to nothing, or when this kind
// of link cannot tell.
std::string link_identity(const host_options &options, link_name name);

// Whether this kind of link carries the name at all: a serial line carries the command channel alone.
bool link_carries(const host_options &options, link_name name);

// Whether the agent publishes the name now, be it free or busy. A free one is taken and given back.
bool link_is_present(const host_options &options, link_name name);

// Discards what has arrived in a turn and was not read.
void link_discard_input(const link_turn &turn);

// Opens the terminal that the agent has announced on its listener, where the listener is and nowhere else, and makes it
// raw. A terminal that is not the agent's is never opened.
// Result: true, and link_close_terminal is due; or false with the reason said.
bool link_open_terminal(const host_options &options, const link_turn &listener, const std::string &path,
                        link_terminal *terminal);

// Closes the terminal: the agent's child sees a hang-up. Does nothing when it is closed.
void link_close_terminal(link_terminal *terminal);

// Gives the terminal the window size of the local terminal `from`. Does nothing when `from` is no terminal.
void link_copy_size(const host_options &options, const link_terminal &terminal, int from);

// Prepares a terminal for a person who types, before the child runs. The terminal gets the attributes of an ordinary one,
// so that programs find and change them as usual, and a flag that leaves their meaning to this process: the kernel still
// passes all bytes unchanged. Result: whether it is done; if not, link_get_reading is of no use.
bool link_prepare_typing(const host_options &options, const link_terminal &terminal);

// Tells how the foreground program of a prepared terminal reads. Puts right what a program such as `stty sane` has undone.
// Result: whether it is known.
bool link_get_reading(const host_options &options, const link_terminal &terminal, link_reading *reading);

// Opens a terminal again that link_close_terminal has closed and whose child still runs; its attributes are what they
// were. Result: true, and link_close_terminal is due; or false: it is gone.
bool link_reopen_terminal(const host_options &options, link_terminal *terminal);
