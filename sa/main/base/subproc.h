// Child processes: every program that the agent runs by itself (not through the shell call) is started here.
//
//   create_subproc_thread     a shell on a descriptor that the caller holds (remote shell)
//   sa_create_subproc_thread  a program by argument vector, streams on /dev/null (collectors)
//
// Each child has a detached waiter thread that reaps it, logs how it ended and closes the descriptor handed to it.
#ifndef SA_MAIN_BASE_SUBPROC_H
#define SA_MAIN_BASE_SUBPROC_H

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

/** What a waiter thread is given: allocated by the launcher, freed by the thread. */
struct stinfo {
    int (*func)(int fd, int pid);  // always subproc_waiter_service
    int fd;                        // the descriptor handed to the child; the waiter closes it
    int pid;                       // the child
    sigset_t mask;                 // the signals that the thread blocks, those of its creator: thread_create
};

/**
 * fork for a process with threads: no handler of the agent runs in the child, and the child's log lines take no lock that
 * another thread may have held. The child starts with default signal actions and an empty mask, and must end by exec or
 * _exit.
 */
pid_t sa_fork(void);

/**
 * Forks a shell, /system/bin/sh, whose standard streams are `fd`.
 *
 * @param fd       the streams; in the parent it stays open, or is closed when the fork failed.
 * @param arg0     first argument of the shell.
 * @param arg1     second argument, or null for none.
 * @param pid_ptr  receives the fork's result in every case.
 * @return `fd`, or -1 when the fork failed. Does not return in the child.
 */
int create_subprocess(int fd, const char *arg0, const char *arg1, int *pid_ptr);

/**
 * Starts a remote shell and its waiter. Main thread.
 *
 * @param fd    the connection's master.
 * @param name  command line to run, or null for an interactive shell.
 * @return `fd`, which then belongs to the waiter: the caller may use it but not close it; or -1, with `fd` closed.
 */
int create_subproc_thread(int fd, const char *name);

/** Starts a detached thread that runs service_bootstrap_func with the record. Returns 0 or an error number. */
int thread_create(pthread_t *id_ptr, struct stinfo *info_ptr);

/** Start routine of waiter threads: runs the record's function and frees the record. */
void *service_bootstrap_func(void *info_ptr);

/** Waits for a child, logs its end and, 200 ms later, closes `fd`. Returns the result of that close. */
int subproc_waiter_service(int fd, int pid);

/**
 * Starts a program with its streams on /dev/null, and its waiter. It runs as user 2000 and group 1007, unless the
 * command contains "tcpdump": packet capture keeps the agent's identity. Blocks the caller for 100 ms.
 *
 * @param cmd         the program, looked up through the search path.
 * @param argv        null-terminated argument vector.
 * @param param_size  the caller's count of entries; only logged.
 * @return the child's process id, or -1. Only a result above 0 is a success.
 */
int sa_create_subproc_thread(const char *cmd, char *const argv[], int param_size);

#endif
