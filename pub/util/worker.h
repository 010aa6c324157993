// Worker threads that another thread may stop with SIGUSR1.
//
//   creator ── pub_util_create_thread ──▶ worker (SIGUSR1 blocked) ── pub_util_accept_stop ──▶ working
//   stopper ── pub_util_kill_thread ── SIGUSR1 ──▶ pub_util_handle_thread_signal ──▶ worker ends itself
#ifndef PUB_UTIL_WORKER_H
#define PUB_UTIL_WORKER_H

#include <pthread.h>
#include <stdint.h>

/**
 * A stored thread id. A stop of a worker that has ended has no effect, however old the id is: only the serial is
 * compared. The C library's own ids cannot promise that. They are reused by later threads, and signalling a stale one
 * hits another thread on one C library and aborts the process on another.
 */
struct pub_thread_id {
    unsigned long thread;  // the pthread_t, for log lines; 0 for none
    uint64_t serial;       // names one worker for the life of the process; 0 names none
};

/**
 * Starts a detached worker. It begins with SIGUSR1 blocked, so that a stop sent early waits for pub_util_accept_stop; its
 * other signals are blocked as the creator's are. One creator at a time.
 *
 * @param id_ptr   receives the worker's id, before anyone can stop the worker; untouched on failure.
 * @param routine  what the worker runs; its result is ignored.
 * @param arg      passed to the routine.
 * @return 0, or an error number: EAGAIN when the system or the registry (16384 workers) is full.
 */
int pub_util_create_thread(struct pub_thread_id *id_ptr, void *(*routine)(void *), void *arg);

/** Called by a worker: installs pub_util_handle_thread_signal for SIGUSR1 and unblocks it. */
void pub_util_accept_stop(void);

/**
 * Called by a worker: gives it two descriptors that are closed when it ends, in whichever way. C libraries differ in
 * whether they unwind the frames of an ended thread, so nothing on its stack could do this.
 *
 * @param first_fd, second_fd  descriptors, or -1 for none.
 */
void pub_util_own_descriptors(int first_fd, int second_fd);

/** Called by a worker: closes the descriptors that it owns, now. */
void pub_util_close_owned(void);

/**
 * Sends a signal to a worker. Any thread, and a signal handler.
 *
 * @param id     a stored id, however old.
 * @param signo  the signal; 0 only tests whether the worker lives.
 * @return 0, ESRCH when no such worker lives, or the error number of the failed send.
 */
int pub_util_signal_thread(struct pub_thread_id id, int signo);

/**
 * Stops a worker: sends SIGUSR1, gives it 10 ms to end and clears the stored id. Does not join it: its resources may still
 * be held on return. Blocks the caller for those 10 ms.
 *
 * @param id_ptr  a stored id; cleared after a stop, kept when there was no worker to stop.
 * @return 0, or the positive error number of a failed send.
 */
int pub_util_kill_thread(struct pub_thread_id *id_ptr);

/** The SIGUSR1 handler: ends the thread that receives it. Any other number is reported and ignored. */
void pub_util_handle_thread_signal(int signo);

#endif
