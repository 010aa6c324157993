// The command channel's endpoint: m_sa_handle.pty, which no other file touches once sa_handle_init has cleared the record.
//
// The command reader thread opens and closes it. A teardown, in a signal handler on any thread, retires it at any moment:
//
//   prepare ─▶ open ⇄ close        retire ─▶ closed, and not opened again until resume (the first open waits 3 s at most)
#ifndef SA_SA_HANDLE_COMMAND_CHANNEL_H
#define SA_SA_HANDLE_COMMAND_CHANNEL_H

#include <stdint.h>

#include "pub/pty/pty.h"

/**
 * Names the channel. Main thread, before the command reader thread exists.
 *
 * @param name  where the slave is published, at most 27 characters; empty: the channel cannot be opened.
 */
void sa_channel_prepare(const char *name);

/** The master, or -1 while the channel is closed. One atomic load. Command reader thread. */
int32_t sa_channel_fd(void);

/**
 * Opens the channel and publishes its slave. Command reader thread. errno is that of the call that failed. The first open
 * after a retirement waits for the end of the process or for sa_channel_resume, 3 s at most, and then opens the channel.
 *
 * @param seen_ptr  receives a copy of the endpoint record, for log lines.
 * @return the result of pub_pty_open, or -1 after a retirement, if the channel had been open before.
 */
long sa_channel_open(struct pub_pty_st *seen_ptr);

/** Closes the channel. Command reader thread. Returns the result of pub_pty_close. */
long sa_channel_close(void);

/**
 * Closes the channel and keeps it closed until sa_channel_resume. Any thread, also in a signal handler; may be called again.
 * What was never opened is not closed. The command reader thread may still answer a request: its descriptor number then
 * refers to the null device until that thread closes or opens the channel, so that the answer reaches no other file.
 *
 * @return the result of pub_pty_close: -1 when the channel was not open.
 */
long sa_channel_retire(void);

/** Lets the command reader thread open the channel again, when the process goes on after its teardown. Any thread. */
void sa_channel_resume(void);

#endif
