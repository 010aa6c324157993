// The command channel's reader loop.
#ifndef SA_SA_HANDLE_COMMAND_READER_H
#define SA_SA_HANDLE_COMMAND_READER_H

/**
 * Start routine of the command reader thread: opens the channel, serves one request a read, opens the channel again when
 * the host has gone away, and returns null when it cannot be opened or read any more. `arg` is only logged.
 */
void *sa_handle_read_cmd_loop(void *arg);

#endif
