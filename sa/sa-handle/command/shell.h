// Command lines for the shell, as the platform's `system` runs them. Each call blocks until the shell is done.
#ifndef SA_SA_HANDLE_COMMAND_SHELL_H
#define SA_SA_HANDLE_COMMAND_SHELL_H

#include <stddef.h>

/** Size of a command line, NUL included; longer ones are cut. */
enum { SA_COMMAND_SIZE = 256 };

/** Runs a command line once and reports a failure under the caller's name and line; the caller goes on in every case. */
#define PUB_UTIL_CALL_SYSTEM(command) sa_call_system(__func__, __LINE__, (command))

/** Behind PUB_UTIL_CALL_SYSTEM. Returns the raw status of `system`. */
int sa_call_system(const char *log_name, int line, const char *command);

/**
 * Runs a command line until one run returns status 0, at most 5 times, with a pause of 500 ms after each failure. Any
 * raw status but 0 is a failure: an exit code, a death by signal, a shell that could not be started.
 *
 * @return 0, or -118 after the fifth failure.
 */
long do_sys_command(const char *command);

/** Asks init to start a service. Returns the raw status of `system`; the command line that was run stays in command_ptr. */
int sa_start_init_service(const char *name, char *command_ptr, size_t size);

#endif
