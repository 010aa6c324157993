// Floors, which are lower bounds: only the system calls that the agent must make. No formatting, no checks, no signal masks.
#ifndef BENCH_FLOORS_FLOORS_H
#define BENCH_FLOORS_FLOORS_H

// One datagram to the log daemon.
void floor_platform_line(const char *text);
// One line of a file beside the diagnostic one: open, write, close.
void floor_file_line(const char *text);
// Both.
void floor_line(const char *text);
// Waits until the log daemon has read everything that any process has sent, so that it does not affect a measurement.
void floor_await_daemon(void);

// The first process whose first argument contains `name`, or 0. Logs the lines that the agent's lookup logs.
int floor_lookup(const char *name);

// Serves AT requests on a terminal with the name `link`: writes the answer and the log lines of the agent.
int floor_echo(const char *link);

// Copies standard input to standard output in pieces of 99 bytes, on a thread.
int floor_copy(void);

#endif
