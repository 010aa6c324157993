// The command and log layer as a whole: up and down.
#ifndef SA_SA_HANDLE_HANDLE_H
#define SA_SA_HANDLE_HANDLE_H

/**
 * Brings the layer up: auto-start services, collectors when /data has enough free space, the command reader thread, panic records.
 * Main thread, once.
 *
 * @return 0, or -118 when the command reader thread could not be created; nothing else fails it.
 */
long sa_handle_init(void);

/**
 * Closes the command channel and keeps it closed. Ends neither the reader thread nor the collectors. May be called again,
 * and by a signal handler on any thread.
 *
 * @return the result of closing: 0; -1 when the channel was not open; -118 when its link could not be removed.
 */
long sa_handle_deinit(void);

/** Lets the command channel be opened again, when the process goes on after sa_handle_deinit. Any thread. */
void sa_handle_resume(void);

#endif
