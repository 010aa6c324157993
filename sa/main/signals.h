// The agent's signals and its teardown.
#ifndef SA_MAIN_SIGNALS_H
#define SA_MAIN_SIGNALS_H

/** The name of a signal, the first of its names where it has two; empty for an unknown number. */
const char *sa_get_signal_name(int signo);

/** Installs signal_treatment for SIGINT, SIGTERM, SIGSEGV, SIGBUS and SIGUSR2. */
void sa_install_signals(void);

/**
 * The handler: tears down; then SIGUSR2 stops the collectors and has init stop the agent's service, and any other signal
 * ends the process with status 0. Runs on whichever thread the signal finds.
 */
void signal_treatment(int signo);

/** Closes the command channel. May be called again. */
void sa_deinit_resource(void);

/** Ends the process. No handler of the calling thread runs any more: it would end the process from inside its end. */
__attribute__((noreturn)) void sa_exit(int status);

#endif
