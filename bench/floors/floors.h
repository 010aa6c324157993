// Floors: the system calls that the agent has to make, and nothing else. No formatting, no checks, no signal masks.
#ifndef BENCH_FLOORS_FLOORS_H
#define BENCH_FLOORS_FLOORS_H

// One datagram to the log daemon.
void floor_platform_line(const char *text);
// One line of a file beside the diagnostic one: open, write, close.
void floor_file_line(const char *text);
// Both.
void floor_line(const char *text);
// Waits until the log daemon has read whatever was sent before, by whomever, so that it disturbs no measurement.
void floor_await_daemon(void);

// The first process whose first argument contains `name`, or 0; with the lines that the agent's lookup leaves.
int floor_lookup(const char *name);

// Serves AT requests on a terminal that is published as `link`: the answer, and the lines that the agent leaves.
int floor_echo(const char *link);

// Copies standard input to standard output in pieces of 99 bytes, on a thread.
int floor_copy(void);

#endif
