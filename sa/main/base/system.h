// The shell call of the platform, `system`, made safe for a process with threads and handlers.
#ifndef SA_MAIN_BASE_SYSTEM_H
#define SA_MAIN_BASE_SYSTEM_H

/**
 * Stores the actions of SIGINT and SIGQUIT as they are now; sa_system puts them back from then on. Called once, when the
 * agent's handlers are installed, before there is a second thread.
 */
void sa_system_keep_signals(void);

/**
 * Runs a command line with `system` and blocks until the shell has ended. Every shell call of the agent goes through here:
 * `system` ignores SIGINT and SIGQUIT while it waits, and on some C libraries two calls at a time leave them ignored.
 * Any thread. errno is that of `system`.
 *
 * @return the raw status of `system`.
 */
int sa_system(const char *command);

#endif
