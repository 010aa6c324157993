// The agent's signals and its teardown.
#ifndef SA_MAIN_SIGNALS_H
#define SA_MAIN_SIGNALS_H

/** The name of a signal, the first of its names where it has two; empty for an unknown number. */
const char *sa_get_signal_name(int signo);

/**
 * Lets a write to a pipe without a reader, or beyond the limit of a file's size, fail instead of ending the process.
 * Programs that the agent runs keep the default actions. Main thread, first of all.
 */
void sa_survive_failed_writes(void);

/** Installs signal_treatment for SIGINT, SIGTERM, SIGSEGV, SIGBUS and SIGUSR2. Main thread, before there are others. */
void sa_install_signals(void);

/**
 * The handler: tears down; then SIGUSR2 stops the collectors and has init stop the agent's service, and any other signal
 * ends the process with status 0. Runs on whichever thread receives the signal.
 */
void signal_treatment(int signo);

/** Closes the command channel. Any thread; may be called again. */
void sa_deinit_resource(void);

#endif
