#pragma once
// The person's own terminal while a remote shell has it, and the signals that must not leave it in a mess.

#include <csignal>

// What has happened since the bridge last looked. Set by handlers on the main thread, read and cleared there too.
struct local_events {
    volatile sig_atomic_t end_signal;     // SIGINT, SIGTERM, SIGHUP, SIGQUIT: number of the last one
    volatile sig_atomic_t is_resized;     // SIGWINCH
    volatile sig_atomic_t is_to_suspend;  // SIGTSTP
};
extern local_events m_local_events;

// Installs the handlers and blocks their signals, which from now on come during a wait with local_wait_mask only:
// none is missed between a look at m_local_events and the wait. Ignores SIGPIPE. Does nothing when called twice.
void local_signals_take();

// The mask to wait with.
const sigset_t *local_wait_mask();

// Gives the signals back their former actions and mask. Does nothing when they are not taken.
void local_signals_release();

// Puts the terminal `fd` into raw mode, its output processing left as it is. A small process is left behind that
// restores the terminal if this one is killed. Result: 0, or -1 with errno (nothing changed).
int local_raw_enter(int fd);

// Restores the terminal and dismisses the keeper. Does nothing when not raw.
void local_raw_leave();

// Restores the terminal, stops this process (and its group) as Ctrl-Z would, and goes on raw when it is continued.
void local_suspend(int fd);

// Ends this process by the signal, as its parent expects to see it.
[[noreturn]] void local_die_by(int signal_number);
