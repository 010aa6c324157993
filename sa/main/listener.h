// The remote-shell listener, published as /dev/ttysa1.
//
//   client ── "shell:ls -l" ──▶ listener        listener ── "/dev/pts/7" ──▶ client ── any byte ──▶ listener
//   client ⇄ /dev/pts/7 ⇄ child shell on the master side
#ifndef SA_MAIN_LISTENER_H
#define SA_MAIN_LISTENER_H

/** Size of a listener's or connection's name, NUL included. */
enum { SA_PTM_NAME_SIZE = 512 };

/**
 * Opens a new pseudo-terminal in raw mode, close-on-exec; its slave belongs to user 1000 and group 1001, mode 0660.
 *
 * @param name_ptr  a path to publish the slave under; or empty, and then it receives the slave's own path
 *                  (SA_PTM_NAME_SIZE bytes).
 * @return the master, which the caller owns; or -1.
 */
int open_ptm(char *name_ptr);

/**
 * Serves remote-shell requests, one at a time, for as long as the listener can be read or opened again. Main thread.
 * A request "host:kill" ends the process from in here.
 *
 * @return 0.
 */
int sa_listener_loop(void);

/**
 * Whether the calling thread is the main thread and waits for a request in the listener's read. Called by a signal handler:
 * if true, and unless it has interrupted another handler, it has not interrupted a function of the C library that holds a
 * lock.
 */
bool sa_listener_is_waiting(void);

#endif
