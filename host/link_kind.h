#pragma once
// What a kind of link has to offer. For link.cpp and the link_*.cpp files alone.

#include <termios.h>

#include "link.h"

// What came of one attempt to take a turn. All but LINK_TAKEN and LINK_REFUSED are worth another attempt.
enum link_state {
    LINK_TAKEN,
    LINK_ABSENT,   // the name leads to nothing
    LINK_FOREIGN,  // it leads to a terminal that is not the agent's
    LINK_BUSY,     // another sa-host has its turn
    LINK_USED,     // a client has had this endpoint, and the agent has not replaced it
    LINK_REFUSED,  // it cannot be opened
};

struct link_attempt {
    link_state state = LINK_REFUSED;
    int error = 0;       // errno of a failed step
    unsigned uid = 0;    // of a foreign terminal
    unsigned gid = 0;    // of a foreign terminal
    std::string reason;  // the whole sentence, where the kind of link knows a better one than the state gives
};

struct link_kind {
    link_attempt (*take)(const host_options &options, const std::string &path, link_turn *turn);
    // The sentence for a name that is absent. `role` names it ("command channel").
    std::string (*explain_absence)(const host_options &options, const std::string &path, const char *role);
    // See link_identity.
    std::string (*identity)(const host_options &options, const std::string &path);
    // See link_loss.
    std::string (*loss)(const host_options &options);
    bool (*open_terminal)(const host_options &options, const link_turn &listener, const std::string &path,
                          link_terminal *terminal);
    void (*set_size)(const host_options &options, const link_terminal &terminal, const struct winsize &size);
    bool (*get_attributes)(const host_options &options, const link_terminal &terminal, struct termios *attributes);
    // Switches EXTPROC on and output processing off, so that the kernel passes all bytes; with `is_new` also gives the
    // terminal the attributes of an ordinary one: lines, echo, signals, Enter as newline.
    bool (*set_passing)(const host_options &options, const link_terminal &terminal, bool is_new);
    bool (*reopen_terminal)(const host_options &options, link_terminal *terminal);
};

// The agent gives the terminals that it publishes and announces to this pair. Any other owner means a number that has
// been reused, or a machine that is not the handset.
constexpr unsigned AGENT_PTY_UID = 1000;
constexpr unsigned AGENT_PTY_GID = 1001;

extern const link_kind m_link_local;
extern const link_kind m_link_adb;
extern const link_kind m_link_tty;  // its path is the device; "" for the listener, which no serial line carries

// The two parts of "DEVICE" or "DEVICE,SPEED". The second result tells whether the speed is one; it is left as it was
// where none is given.
std::string link_tty_device(const std::string &line);
bool link_tty_speed(const std::string &line, speed_t *code);
